#include <kest/variant/variant.h>

#include <algorithm>
#include <charconv>
#include <system_error>

namespace kest::variant {
namespace {

constexpr double kTwoTo63 = 9223372036854775808.0;
constexpr double kTwoTo64 = 18446744073709551616.0;
constexpr int64_t kMaxSigned = std::numeric_limits<int64_t>::max();

// The comparisons are false for NaN.
int64_t truncateSigned(double number) {
    if (number >= kTwoTo63) return kMaxSigned;
    if (number <= -kTwoTo63) return std::numeric_limits<int64_t>::min();
    return number == number ? static_cast<int64_t>(number) : 0;
}

uint64_t truncateUnsigned(double number) {
    if (number >= kTwoTo64) return std::numeric_limits<uint64_t>::max();
    return number >= 1 ? static_cast<uint64_t>(number) : 0;
}

template <typename T>
bool parseWhole(std::string_view text, T& number) {
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end;
}

const Variant kNull;

}  // namespace

struct Variant::Number {
    std::variant<int64_t, uint64_t, double> value;

    static Number Parse(std::string_view text) {
        if (text.size() > 1 && text[0] == '+' && text[1] != '-') text.remove_prefix(1);
        int64_t number = 0;
        if (parseWhole(text, number)) return {number};
        uint64_t large = 0;
        if (parseWhole(text, large)) return {large};
        // The C library would look for the decimal point of the user's language.
        Variant fraction;
        if (text.find_first_not_of("0123456789+-.eE") == std::string_view::npos) {
            FromJson(text, fraction);
        }
        return fraction.ToNumber();
    }
};

Variant::Number Variant::ToNumber() const {
    if (const auto* number = std::get_if<int64_t>(&value_)) return {*number};
    if (const auto* large = std::get_if<uint64_t>(&value_)) return {*large};
    if (const auto* real = std::get_if<double>(&value_)) return {*real};
    if (const auto* text = std::get_if<std::string>(&value_)) return Number::Parse(*text);
    if (const auto* time = std::get_if<timeval>(&value_)) {
        const auto seconds = static_cast<double>(time->tv_sec);
        return {seconds + static_cast<double>(time->tv_usec) / 1e6};
    }
    const bool* truth = std::get_if<bool>(&value_);
    return {int64_t{truth != nullptr && *truth}};
}

Variant::Box::Box() : object(std::make_unique<Object>()) {}

Variant::Box::Box(const Box& other) : object(std::make_unique<Object>(*other.object)) {}

Variant::Variant(const char* text)
    : value_(std::in_place_type<std::string>, text != nullptr ? text : "") {}

Variant::Variant(std::string text) noexcept : value_(std::move(text)) {}

Variant::Variant(const timeval& time) noexcept : value_(time) {}

Variant::Variant(const Variant& other) = default;

Variant::Variant(Variant&& other) noexcept {
    value_.swap(other.value_);
}

Variant::~Variant() = default;

Variant& Variant::operator=(Variant other) noexcept {
    value_ = std::move(other.value_);
    return *this;
}

bool Variant::IsInteger() const noexcept {
    return *this == VariantType::Int64 || *this == VariantType::UInt64;
}

void Variant::Free() noexcept {
    Variant old;
    value_.swap(old.value_);
}

void Variant::IsArray(bool array) {
    if (array) {
        if (*this != VariantType::Array) value_.emplace<Array>();
    } else if (*this != VariantType::Object) {
        value_ = Box();
    }
}

Variant& Variant::Insert(std::string_view key) {
    IsArray(false);
    Object& members = *std::get_if<Box>(&value_)->object;
    const auto at = members.lower_bound(key);
    if (at != members.end() && at->first == key) return at->second;
    return members.emplace_hint(at, key, nullptr)->second;
}

Variant& Variant::operator[](const char* key) {
    return Insert(key != nullptr ? key : "");
}

Variant& Variant::operator[](const std::string& key) {
    return Insert(key);
}

const Variant& Variant::operator[](const char* key) const noexcept {
    const Variant* found = Find(key != nullptr ? key : "");
    return found != nullptr ? *found : kNull;
}

const Variant& Variant::operator[](const std::string& key) const noexcept {
    const Variant* found = Find(key);
    return found != nullptr ? *found : kNull;
}

Variant* Variant::Find(std::string_view key) noexcept {
    return const_cast<Variant*>(std::as_const(*this).Find(key));
}

const Variant* Variant::Find(std::string_view key) const noexcept {
    const auto entry = Members().find(key);
    return entry != Members().end() ? &entry->second : nullptr;
}

bool Variant::Remove(std::string_view key) noexcept {
    Box* box = std::get_if<Box>(&value_);
    if (box == nullptr) return false;
    const auto entry = box->object->find(key);
    if (entry == box->object->end()) return false;
    box->object->erase(entry);
    return true;
}

Variant& Variant::Append(Variant element) {
    IsArray(true);
    return std::get_if<Array>(&value_)->emplace_back(std::move(element));
}

Variant* Variant::At(size_t index) noexcept {
    return const_cast<Variant*>(std::as_const(*this).At(index));
}

const Variant* Variant::At(size_t index) const noexcept {
    return index < Elements().size() ? &Elements()[index] : nullptr;
}

const Variant::Array& Variant::Elements() const noexcept {
    static const Array none;
    const Array* elements = std::get_if<Array>(&value_);
    return elements != nullptr ? *elements : none;
}

const Variant::Object& Variant::Members() const noexcept {
    static const Object none;
    const Box* box = std::get_if<Box>(&value_);
    return box != nullptr ? *box->object : none;
}

Variant::operator const std::string&() const noexcept {
    static const std::string none;
    const std::string* text = std::get_if<std::string>(&value_);
    return text != nullptr ? *text : none;
}

Variant::operator const timeval&() const noexcept {
    static const timeval none = {};
    const timeval* time = std::get_if<timeval>(&value_);
    return time != nullptr ? *time : none;
}

bool Variant::ToBool() const {
    if (const bool* truth = std::get_if<bool>(&value_)) return *truth;
    const std::string* text = std::get_if<std::string>(&value_);
    if (text != nullptr && *text == "true") return true;
    return !(ToDouble() == 0);
}

int64_t Variant::ToSigned() const {
    const Number number = ToNumber();
    if (const auto* real = std::get_if<double>(&number.value)) return truncateSigned(*real);
    if (const auto* whole = std::get_if<int64_t>(&number.value)) return *whole;
    return static_cast<int64_t>(*std::get_if<uint64_t>(&number.value));
}

uint64_t Variant::ToUnsigned() const {
    const Number number = ToNumber();
    if (const auto* real = std::get_if<double>(&number.value)) return truncateUnsigned(*real);
    if (const auto* whole = std::get_if<uint64_t>(&number.value)) return *whole;
    return static_cast<uint64_t>(*std::get_if<int64_t>(&number.value));
}

int64_t Variant::ToRange(int64_t low, int64_t high) const {
    const Number number = ToNumber();
    const auto* large = std::get_if<uint64_t>(&number.value);
    if (large != nullptr && *large > static_cast<uint64_t>(kMaxSigned)) return high;
    return std::clamp(ToSigned(), low, high);
}

double Variant::ToDouble() const {
    const Number number = ToNumber();
    if (const auto* whole = std::get_if<int64_t>(&number.value)) return static_cast<double>(*whole);
    if (const auto* large = std::get_if<uint64_t>(&number.value)) {
        return static_cast<double>(*large);
    }
    return *std::get_if<double>(&number.value);
}

bool operator==(const Variant& a, const Variant& b) {
    if (a.IsInteger() && b.IsInteger()) {
        // The same bits are the same number unless they are a negative one's on one side only.
        const auto negative = [](const Variant& value) {
            return value == VariantType::Int64 && value.ToSigned() < 0;
        };
        return a.ToUnsigned() == b.ToUnsigned() && negative(a) == negative(b);
    }
    if (a.value_.index() != b.value_.index()) return false;
    switch (static_cast<VariantType>(a)) {
        case VariantType::Bool:
            return a.ToBool() == b.ToBool();
        case VariantType::Double:
            return a.ToDouble() == b.ToDouble();
        case VariantType::String:
            return static_cast<const std::string&>(a) == static_cast<const std::string&>(b);
        case VariantType::TimeVal: {
            const timeval& x = a;
            const timeval& y = b;
            return x.tv_sec == y.tv_sec && x.tv_usec == y.tv_usec;
        }
        case VariantType::Array:
            return a.Elements() == b.Elements();
        case VariantType::Object:
            return a.Members() == b.Members();
        default:
            return true;
    }
}

BaseVariantContainer::BaseVariantContainer() {
    IsArray(false);
}

BaseVariantContainer::BaseVariantContainer(Variant value) noexcept : Variant(std::move(value)) {}

BaseVariantContainer::~BaseVariantContainer() = default;

void BaseVariantContainer::NormalizeFields() {
    IsArray(false);
}

}  // namespace kest::variant
