/// @file
/// Typed views of the objects that daemons send each other: one accessor for each key, with its
/// default. A message belongs to one thread at a time. Nothing here logs or fails.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <string>

#include <kest/utils/api.h>
#include <kest/variant/variant.h>

namespace kest::ipc::messages {

/// What every message carries. All of it stands in the object; the classes add no state.
///
/// A getter **repairs**: where its key is missing or holds another type it writes the default and
/// returns that. What is no object at all becomes an empty one first, also in a setter.
///
/// | key | type | default |
/// |---|---|---|
/// | "id" | unsigned 64-bit; any integer is accepted | a new IdGenerator::GenerateId() |
/// | "timeStamp" | time | the wall clock's |
/// | "from", "to", "functionName" | string | empty |
/// | "queueIfDestUnavailable" | bool | true |
class KEST_API BaseMessage : public variant::BaseVariantContainer {
  public:
    /// A new message is an empty object. One made of a received value takes it over as it is.
    using BaseVariantContainer::BaseVariantContainer;

    /// A negative id comes out as the unsigned number with the same bits (-1 as 2^64 - 1).
    uint64_t id();
    timeval timeStamp();
    std::string from();
    std::string to();
    std::string functionName();
    bool queueIfDestUnavailable();

    /// Store a value under the key of that name.
    void timeStamp(timeval time);
    void from(std::string endpoint);
    void to(std::string endpoint);
    void functionName(std::string name);

    /// Writes every key of the table, in its order, with what the getter gives; call it before the
    /// message goes out. Afterwards "id" is unsigned.
    void NormalizeFields() override;
};

/// A message that asks for something.
///
/// | key | type | default |
/// |---|---|---|
/// | "responseExpected" | bool | false |
/// | "transactionId" | signed 64-bit; any integer is accepted | -1 |
/// | "isBroadcast" | bool | false |
class KEST_API BaseRequestMessage : public BaseMessage {
  public:
    using BaseMessage::BaseMessage;

    /// Getters that repair, as BaseMessage describes.
    bool responseExpected();
    int64_t transactionId();
    bool isBroadcast();

    /// Writes its own keys, then those of BaseMessage.
    void NormalizeFields() override;
};

/// Asks whether an access token is valid; the status of the answer tells (0: it is).
///
/// | key | type | default |
/// |---|---|---|
/// | "functionName" | string | "ValidateAuthToken" |
/// | "responseExpected" | bool | true |
/// | "authToken" | string | empty |
class KEST_API ValidateAuthToken : public BaseRequestMessage {
  public:
    using BaseRequestMessage::BaseRequestMessage;

    /// What is stored, also another name, until the setter or NormalizeFields() was called.
    std::string functionName();
    bool responseExpected();
    std::string authToken();

    /// Stores the one of the possible names that equals `name` regardless of case, else the first
    /// of them. There is one, so "ValidateAuthToken" is stored whatever is given.
    void functionName(std::string name);
    void authToken(std::string token);

    /// Writes its own keys, then those of BaseRequestMessage: its own defaults win.
    void NormalizeFields() override;
};

}  // namespace kest::ipc::messages
