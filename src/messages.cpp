#include <kest/ipc/messages.h>

#include <strings.h>

#include <string_view>
#include <utility>

#include <kest/ipc/IdGenerator.h>
#include <kest/utils/string_utils.h>

namespace kest::ipc::messages {
namespace {

using variant::Variant;
using variant::VariantType;

// Possible values of "functionName" in ValidateAuthToken.
constexpr std::string_view kValidateNames[] = {"ValidateAuthToken"};

Variant& entry(Variant& message, const char* key) {
    if (VariantType(message) != VariantType::Object) {
        message.Free();
        message.IsArray(false);
    }
    return message[key];
}

// The entry under the key, after it got its default if its type was another.
Variant& text(Variant& message, const char* key, const char* fallback = "") {
    Variant& value = entry(message, key);
    if (VariantType(value) != VariantType::String) value = fallback;
    return value;
}

Variant& flag(Variant& message, const char* key, bool fallback) {
    Variant& value = entry(message, key);
    if (VariantType(value) != VariantType::Bool) value = fallback;
    return value;
}

Variant& time(Variant& message, const char* key) {
    Variant& value = entry(message, key);
    if (VariantType(value) != VariantType::TimeVal) {
        timeval current = {};
        value = *utils::now(&current);
    }
    return value;
}

bool isInteger(const Variant& value) {
    const VariantType type = value;
    return type == VariantType::Int64 || type == VariantType::UInt64;
}

Variant& id(Variant& message) {
    Variant& value = entry(message, "id");
    if (!isInteger(value)) {
        value = static_cast<unsigned long long>(IdGenerator::GenerateId());
    }
    return value;
}

Variant& transactionId(Variant& message) {
    Variant& value = entry(message, "transactionId");
    if (!isInteger(value)) value = -1;
    return value;
}

const std::string& asText(const Variant& value) {
    return value;
}

bool sameName(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string_view validateName(std::string_view name) {
    for (const std::string_view possible : kValidateNames) {
        if (sameName(name, possible)) return possible;
    }
    return kValidateNames[0];
}

}  // namespace

uint64_t BaseMessage::id() {
    return static_cast<unsigned long long>(messages::id(*this));
}

timeval BaseMessage::timeStamp() {
    return static_cast<const timeval&>(time(*this, "timeStamp"));
}

std::string BaseMessage::from() {
    return asText(text(*this, "from"));
}

std::string BaseMessage::to() {
    return asText(text(*this, "to"));
}

std::string BaseMessage::functionName() {
    return asText(text(*this, "functionName"));
}

bool BaseMessage::queueIfDestUnavailable() {
    return flag(*this, "queueIfDestUnavailable", true);
}

void BaseMessage::timeStamp(timeval time) {
    entry(*this, "timeStamp") = time;
}

void BaseMessage::from(std::string endpoint) {
    entry(*this, "from") = std::move(endpoint);
}

void BaseMessage::to(std::string endpoint) {
    entry(*this, "to") = std::move(endpoint);
}

void BaseMessage::functionName(std::string name) {
    entry(*this, "functionName") = std::move(name);
}

// What has been repaired needs no writing back, but for integers, which may still change their
// type.
void BaseMessage::NormalizeFields() {
    Variant& number = messages::id(*this);
    number = static_cast<unsigned long long>(number);
    time(*this, "timeStamp");
    text(*this, "from");
    text(*this, "to");
    text(*this, "functionName");
    flag(*this, "queueIfDestUnavailable", true);
    BaseVariantContainer::NormalizeFields();
}

bool BaseRequestMessage::responseExpected() {
    return flag(*this, "responseExpected", false);
}

int64_t BaseRequestMessage::transactionId() {
    return static_cast<long long>(messages::transactionId(*this));
}

bool BaseRequestMessage::isBroadcast() {
    return flag(*this, "isBroadcast", false);
}

void BaseRequestMessage::NormalizeFields() {
    flag(*this, "responseExpected", false);
    Variant& transaction = messages::transactionId(*this);
    transaction = static_cast<long long>(transaction);
    flag(*this, "isBroadcast", false);
    BaseMessage::NormalizeFields();
}

std::string ValidateAuthToken::functionName() {
    return asText(text(*this, "functionName", kValidateNames[0].data()));
}

bool ValidateAuthToken::responseExpected() {
    return flag(*this, "responseExpected", true);
}

std::string ValidateAuthToken::authToken() {
    return asText(text(*this, "authToken"));
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): as its siblings, which do take it over
void ValidateAuthToken::functionName(std::string name) {
    entry(*this, "functionName") = validateName(name).data();
}

void ValidateAuthToken::authToken(std::string token) {
    entry(*this, "authToken") = std::move(token);
}

void ValidateAuthToken::NormalizeFields() {
    const Variant& name = text(*this, "functionName", kValidateNames[0].data());
    if (asText(name) != validateName(asText(name))) functionName(asText(name));
    flag(*this, "responseExpected", true);
    text(*this, "authToken");
    BaseRequestMessage::NormalizeFields();
}

}  // namespace kest::ipc::messages
