/// @file
/// Typed values that daemons exchange and keep: null, truth value, integers, floating point, text,
/// time, array and object, with JSON in and out. A value may be read by several threads at once;
/// changing it needs a thread's sole use. Nothing here logs, and nothing throws except for want of
/// memory.
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include <kest/platform/api.h>

namespace kest::variant {

/// What a Variant holds.
enum class VariantType { Null, Bool, Int64, UInt64, Double, String, TimeVal, Array, Object };

/// How a Variant is written as JSON.
enum class JsonStyle {
    Exact,  ///< Variant::FromJson() gives back the same value with the same types.
    Plain,  ///< For foreign readers: numbers only, no tagged forms; some types are lost.
};

/// What Variant::FromJson() accepts at most, so that a hostile document exhausts neither memory nor
/// stack.
struct JsonLimits {
    /// No limit may be deeper: reading and writing recurse.
    static constexpr unsigned kMaxDepth = 256;

    size_t bytes = size_t{1} << 20;  ///< Length of the text.
    unsigned depth = 64;             ///< Arrays and objects in one another; kMaxDepth at most.
    size_t values = 65536;           ///< Arrays, objects and what they hold, all together.
};

/// A value of one of the types of VariantType. Copies are deep, moves cheap; a moved-from value is
/// null.
///
///     Variant status;
///     status["name"] = "front door";
///     status["port"] = 8080;
///     unsigned short port = status["port"];
///     send(status.ToJson());
///
/// Conversions are implicit and never fail:
/// - bool: the truth value; "true" is true, anything else when it is not 0 as a number.
/// - numbers: a string gives the decimal number that it consists of, else 0; a time gives its
///   seconds; null, arrays and objects give 0. Fractions are cut off and NaN gives 0. Types of
///   fewer than 64 bits saturate (70000 as an unsigned short is 65535). Between the 64-bit integer
///   types the bits are kept (-1 as unsigned is 2^64 - 1); a double saturates there too.
/// - `const std::string&` and `const timeval&`: empty, or zero, when the value has another type.
class KEST_PLATFORM_API Variant {
    template <typename T>
    using IfNumber =
        std::enable_if_t<std::is_arithmetic_v<T> && !std::is_same_v<T, char> &&
                             !std::is_same_v<T, wchar_t> && !std::is_same_v<T, char16_t> &&
                             !std::is_same_v<T, char32_t>,
                         int>;
    template <typename T>
    using Stored = std::conditional_t<
        std::is_same_v<T, bool>, bool,
        std::conditional_t<std::is_floating_point_v<T>, double,
                           std::conditional_t<std::is_signed_v<T> || sizeof(T) < sizeof(uint64_t),
                                              int64_t, uint64_t>>>;

  public:
    /// What arrays and objects are kept in.
    using Array = std::vector<Variant>;
    using Object = std::map<std::string, Variant, std::less<>>;

    /// Null.
    Variant() noexcept = default;
    Variant(std::nullptr_t) noexcept {}

    /// A truth value, a double, or an integer: UInt64 for 64-bit unsigned types, Int64 for the
    /// rest.
    template <typename T, IfNumber<T> = 0>
    Variant(T value) noexcept
        : value_(std::in_place_type<Stored<T>>, static_cast<Stored<T>>(value)) {}

    /// A string; a null pointer gives an empty one.
    Variant(const char* text);
    Variant(std::string text) noexcept;
    Variant(const timeval& time) noexcept;

    /// A deep copy; a moved-from value is null.
    Variant(const Variant& other);
    Variant(Variant&& other) noexcept;
    ~Variant();

    /// Replaces value and type; also with a part of itself.
    Variant& operator=(Variant other) noexcept;

    /// The type; an explicit VariantType(value) in a switch.
    operator VariantType() const noexcept { return static_cast<VariantType>(value_.index()); }

    /// True for both integer types.
    bool IsInteger() const noexcept;

    /// Makes the value null.
    void Free() noexcept;

    /// Makes the value an array (true) or an object (false): an empty one, unless it is one
    /// already.
    void IsArray(bool array);

    /// The value under the key, inserted as null if it is missing. Anything but an object becomes
    /// an empty object first. References stay valid until the entry or the object goes.
    Variant& operator[](const char* key);
    Variant& operator[](const std::string& key);

    /// The value under the key; a null value if it is missing.
    const Variant& operator[](const char* key) const noexcept;
    const Variant& operator[](const std::string& key) const noexcept;

    /// An index is not a key: see At().
    template <typename T, IfNumber<T> = 0>
    Variant& operator[](T index) const = delete;

    /// The value under the key, or null pointer.
    Variant* Find(std::string_view key) noexcept;
    const Variant* Find(std::string_view key) const noexcept;

    /// Removes the entry of an object; false if there is none.
    bool Remove(std::string_view key) noexcept;

    /// Adds an element at the end. Anything but an array becomes an empty array first.
    /// @return the new element; valid until the next one is added.
    Variant& Append(Variant element);

    /// The element of an array, counted from 0, or null pointer.
    Variant* At(size_t index) noexcept;
    const Variant* At(size_t index) const noexcept;

    /// The elements of an array; none for other types.
    const Array& Elements() const noexcept;

    /// The entries of an object in the order of their keys' bytes; none for other types.
    const Object& Members() const noexcept;

    /// The conversions that the class comment describes. The references stay valid until the value
    /// changes.
    template <typename T, IfNumber<T> = 0>
    operator T() const {
        if constexpr (std::is_same_v<T, bool>) {
            return ToBool();
        } else if constexpr (std::is_floating_point_v<T>) {
            return static_cast<T>(ToDouble());
        } else if constexpr (sizeof(T) < sizeof(int64_t)) {
            return static_cast<T>(
                ToRange(std::numeric_limits<T>::min(), std::numeric_limits<T>::max()));
        } else if constexpr (std::is_signed_v<T>) {
            return ToSigned();
        } else {
            return ToUnsigned();
        }
    }
    operator const std::string&() const noexcept;
    operator const timeval&() const noexcept;

    /// The value as one line of JSON (RFC 8259); docs/variant.md has the table. Bytes that are not
    /// UTF-8 become U+FFFD, and what lies deeper than JsonLimits::kMaxDepth becomes null.
    std::string ToJson(JsonStyle style = JsonStyle::Exact) const;

    /// Reads a JSON text that is nothing but one value.
    /// @return false, with `value` unchanged, when the text is not JSON, not UTF-8, holds a number
    ///         beyond a double's range, or exceeds the limits.
    static bool FromJson(std::string_view text, Variant& value,
                         const JsonLimits& limits = JsonLimits());

    /// Equal types and values; integers compare by value, whether signed or not.
    friend KEST_PLATFORM_API bool operator==(const Variant& a, const Variant& b);
    friend bool operator!=(const Variant& a, const Variant& b) { return !(a == b); }
    template <typename T, IfNumber<T> = 0>
    friend bool operator==(const Variant& a, T b) {
        return a == Variant(b);
    }
    template <typename T, IfNumber<T> = 0>
    friend bool operator==(T a, const Variant& b) {
        return Variant(a) == b;
    }
    template <typename T, IfNumber<T> = 0>
    friend bool operator!=(const Variant& a, T b) {
        return !(a == Variant(b));
    }

  private:
    // Owns its object like a value does. Variant is incomplete here, and a map must not hold
    // incomplete types.
    struct Box {
        Box();
        Box(const Box& other);
        Box(Box&& other) noexcept = default;
        Box& operator=(Box&& other) noexcept = default;
        std::unique_ptr<Object> object;
    };

    Variant& Insert(std::string_view key);

    struct Number;
    Number ToNumber() const;
    bool ToBool() const;
    int64_t ToSigned() const;
    uint64_t ToUnsigned() const;
    int64_t ToRange(int64_t low, int64_t high) const;
    double ToDouble() const;

    // In the order of VariantType.
    std::variant<std::monostate, bool, int64_t, uint64_t, double, std::string, timeval, Array, Box>
        value_;
};

/// A Variant that is a keyed object: the base of messages and other typed views of an object.
class KEST_PLATFORM_API BaseVariantContainer : public Variant {
  public:
    /// An empty object.
    BaseVariantContainer();

    /// Takes a value over as it is; NormalizeFields() makes an object of it.
    explicit BaseVariantContainer(Variant value) noexcept;

    /// As Variant's.
    BaseVariantContainer(const BaseVariantContainer&) = default;
    BaseVariantContainer(BaseVariantContainer&&) noexcept = default;
    BaseVariantContainer& operator=(const BaseVariantContainer&) = default;
    BaseVariantContainer& operator=(BaseVariantContainer&&) noexcept = default;
    virtual ~BaseVariantContainer();

    /// Makes every key that the class owns present, with a value of its type. The base owns none:
    /// it only turns anything but an object into an empty object.
    virtual void NormalizeFields();
};

}  // namespace kest::variant
