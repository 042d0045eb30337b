// JSON in and out of Variant. JSON has one kind of number and no time, so some values are written
// as an object with a single key, the tag, that says what they are.
#include <kest/variant/variant.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kest::variant {
namespace {

using nlohmann::json;

constexpr int64_t kMicrosecondsPerSecond = 1000000;
constexpr uint64_t kMaxSigned = std::numeric_limits<int64_t>::max();

constexpr char kUnsignedTag[] = "$uint64";
constexpr char kDoubleTag[] = "$double";
constexpr char kTimeTag[] = "$timeval";
constexpr char kObjectTag[] = "$object";

// An object that a reader would take for a tagged value.
bool looksTagged(const Variant& value) {
    if (value.Members().size() != 1) return false;
    const std::string& key = value.Members().begin()->first;
    return key == kUnsignedTag || key == kDoubleTag || key == kTimeTag || key == kObjectTag;
}

class Writer {
  public:
    Writer(std::string& out, JsonStyle style) : out_(out), exact_(style == JsonStyle::Exact) {}

    void write(const Variant& value, unsigned depth) {
        const unsigned wrap = tag(value) != nullptr ? 1 : 0;
        const unsigned inner = depth + wrap + (nests(value) ? 1 : 0);
        if (inner > JsonLimits::kMaxDepth) {
            out_ += "null";
            return;
        }
        if (wrap != 0) (((out_ += "{\"") += tag(value)) += "\":");
        bare(value, inner);
        if (wrap != 0) out_ += '}';
    }

  private:
    // Whether the value, its tag aside, is written with brackets or braces.
    bool nests(const Variant& value) const {
        return value == VariantType::Array || value == VariantType::Object ||
               (exact_ && value == VariantType::TimeVal);
    }

    // The tag that a value needs so that it is read back with its type, or null pointer.
    const char* tag(const Variant& value) const {
        if (!exact_) return nullptr;
        switch (static_cast<VariantType>(value)) {
            case VariantType::UInt64:
                return static_cast<uint64_t>(value) <= kMaxSigned ? kUnsignedTag : nullptr;
            case VariantType::Double:
                return std::isfinite(static_cast<double>(value)) ? nullptr : kDoubleTag;
            case VariantType::TimeVal:
                return kTimeTag;
            case VariantType::Object:
                return looksTagged(value) ? kObjectTag : nullptr;
            default:
                return nullptr;
        }
    }

    void bare(const Variant& value, unsigned depth) {
        switch (static_cast<VariantType>(value)) {
            case VariantType::Null:
                out_ += "null";
                return;
            case VariantType::Bool:
                out_ += value ? "true" : "false";
                return;
            case VariantType::Int64:
                return integer(static_cast<int64_t>(value));
            case VariantType::UInt64:
                return integer(static_cast<uint64_t>(value));
            case VariantType::Double:
                return real(value);
            case VariantType::String:
                return string(value);
            case VariantType::TimeVal:
                return time(value);
            case VariantType::Array:
                return array(value, depth);
            case VariantType::Object:
                return object(value, depth);
        }
    }

    template <typename T>
    void integer(T value) {
        char digits[24];
        out_.append(digits, std::to_chars(digits, digits + sizeof(digits), value).ptr);
    }

    void real(double value) {
        if (std::isfinite(value)) {
            out_ += json(value).dump();
        } else if (!exact_) {
            out_ += "null";
        } else if (std::isnan(value)) {
            out_ += "\"NaN\"";
        } else {
            out_ += value > 0 ? "\"Infinity\"" : "\"-Infinity\"";
        }
    }

    void time(const timeval& value) {
        if (!exact_) return real(Variant(value));
        out_ += '[';
        integer(static_cast<int64_t>(value.tv_sec));
        out_ += ',';
        integer(static_cast<int64_t>(value.tv_usec));
        out_ += ']';
    }

    void string(const std::string& text) {
        const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
            return c >= ' ' && c <= '~' && c != '"' && c != '\\';
        });
        if (plain) {
            ((out_ += '"') += text) += '"';
        } else {
            out_ += json(text).dump(-1, ' ', false, json::error_handler_t::replace);
        }
    }

    void array(const Variant& value, unsigned depth) {
        char separator = '[';
        for (const Variant& element : value.Elements()) {
            out_ += separator;
            separator = ',';
            write(element, depth);
        }
        out_ += separator == '[' ? "[]" : "]";
    }

    void object(const Variant& value, unsigned depth) {
        char separator = '{';
        for (const auto& [key, member] : value.Members()) {
            out_ += separator;
            separator = ',';
            string(key);
            out_ += ':';
            write(member, depth);
        }
        out_ += separator == '{' ? "{}" : "}";
    }

    std::string& out_;
    const bool exact_;
};

// Builds a Variant while the text is read, so that the limits end a hostile document early. The
// parser itself does not recurse.
class Builder final : public json::json_sax_t {
  public:
    explicit Builder(const JsonLimits& limits)
        : depth_(std::min(limits.depth, JsonLimits::kMaxDepth)), left_(limits.values) {}

    Variant& root() { return root_; }
    bool sawTag() const { return sawTag_; }

    bool null() override { return add(nullptr) != nullptr; }
    bool boolean(bool value) override { return add(value) != nullptr; }
    bool number_integer(number_integer_t value) override { return add(value) != nullptr; }
    bool number_unsigned(number_unsigned_t value) override {
        return (value <= kMaxSigned ? add(static_cast<int64_t>(value)) : add(value)) != nullptr;
    }
    bool number_float(number_float_t value, const string_t& /*text*/) override {
        return add(value) != nullptr;
    }
    bool string(string_t& value) override { return add(std::move(value)) != nullptr; }
    bool binary(binary_t& /*value*/) override { return false; }

    bool start_array(size_t /*size*/) override { return open(true); }
    bool end_array() override { return close(); }
    bool start_object(size_t /*size*/) override { return open(false); }
    bool end_object() override { return close(); }
    bool key(string_t& value) override {
        sawTag_ = sawTag_ || (!value.empty() && value[0] == '$');
        key_ = std::move(value);
        return true;
    }

    bool parse_error(size_t /*position*/, const std::string& /*token*/,
                     const json::exception& /*error*/) override {
        return false;
    }

  private:
    // Puts a value where the text stands; null pointer when there are too many.
    Variant* add(Variant value) {
        if (left_ == 0) return nullptr;
        --left_;
        if (open_.empty()) return &(root_ = std::move(value));
        Variant& parent = *open_.back();
        if (parent == VariantType::Array) return &parent.Append(std::move(value));
        return &(parent[key_] = std::move(value));
    }

    bool open(bool array) {
        if (open_.size() >= depth_) return false;
        Variant* added = add(nullptr);
        if (added == nullptr) return false;
        added->IsArray(array);
        open_.push_back(added);
        return true;
    }

    bool close() {
        open_.pop_back();
        return true;
    }

    Variant root_;
    // Containers whose end has not come yet. Only the innermost one grows: none of them moves.
    std::vector<Variant*> open_;
    std::string key_;
    const size_t depth_;
    size_t left_;
    bool sawTag_ = false;
};

bool readTime(const Variant& value, Variant& time) {
    if (value.Elements().size() != 2 || *value.At(0) != VariantType::Int64 ||
        *value.At(1) != VariantType::Int64) {
        return false;
    }
    const int64_t seconds = *value.At(0);
    const int64_t microseconds = *value.At(1);
    timeval read = {};
    read.tv_sec = static_cast<time_t>(seconds);
    read.tv_usec = static_cast<suseconds_t>(microseconds);
    if (read.tv_sec != seconds || microseconds <= -kMicrosecondsPerSecond ||
        microseconds >= kMicrosecondsPerSecond) {
        return false;
    }
    time = read;
    return true;
}

bool readDouble(const std::string& name, Variant& number) {
    if (name == "NaN") {
        number = std::numeric_limits<double>::quiet_NaN();
    } else if (name == "Infinity" || name == "-Infinity") {
        const double infinity = std::numeric_limits<double>::infinity();
        number = name[0] == '-' ? -infinity : infinity;
    } else {
        return false;
    }
    return true;
}

// The value that an object with a single key stands for; false if it stands for itself.
bool readTagged(const std::string& tag, const Variant& content, Variant& value) {
    if (tag == kTimeTag) return readTime(content, value);
    if (tag == kDoubleTag) return readDouble(content, value);
    if (tag != kUnsignedTag || content != VariantType::Int64 || static_cast<int64_t>(content) < 0) {
        return false;
    }
    value = static_cast<uint64_t>(content);
    return true;
}

// Replaces tagged forms by what they stand for, from the outside inwards: what is inside an object
// tag decides for itself only below its first level.
void resolveTags(Variant& value) {
    if (looksTagged(value)) {
        const auto& [tag, content] = *value.Members().begin();
        Variant meant;
        if (readTagged(tag, content, meant)) {
            value = std::move(meant);
            return;
        }
        if (tag == kObjectTag && content == VariantType::Object) {
            Variant literal = std::move(*value.Find(kObjectTag));
            value = std::move(literal);
        }
    }
    for (size_t i = 0; i < value.Elements().size(); ++i) {
        resolveTags(*value.At(i));
    }
    for (const auto& entry : value.Members()) {
        // A look-up by the key would give the same, more slowly.
        resolveTags(const_cast<Variant&>(entry.second));
    }
}

}  // namespace

std::string Variant::ToJson(JsonStyle style) const {
    std::string text;
    Writer(text, style).write(*this, 0);
    return text;
}

bool Variant::FromJson(std::string_view text, Variant& value, const JsonLimits& limits) {
    if (text.size() > limits.bytes) return false;
    // The parser takes a NUL for the end and would let pass what follows.
    if (text.find('\0') != std::string_view::npos) return false;
    Builder builder(limits);
    if (!json::sax_parse(text.data(), text.data() + text.size(), &builder)) return false;
    if (builder.sawTag()) resolveTags(builder.root());
    value = std::move(builder.root());
    return true;
}

}  // namespace kest::variant
