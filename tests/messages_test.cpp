#include <dlfcn.h>
#include <kest/ipc/IdGenerator.h>
#include <kest/ipc/messages.h>
#include <unistd.h>

#include <tuple>

#include "support/clean_test.h"

#define LIBC(name) reinterpret_cast<decltype(&(name))>(dlsym(RTLD_NEXT, #name))

// Process id and monotonic clock while the id is not 0.
static pid_t fakePid = 0;
static timespec fakeMoment;

extern "C" pid_t getpid() noexcept {
    return fakePid != 0 ? fakePid : LIBC(getpid)();
}

extern "C" int clock_gettime(clockid_t clock, timespec* at) noexcept {
    if (fakePid == 0 || clock != CLOCK_MONOTONIC) return LIBC(clock_gettime)(clock, at);
    return *at = fakeMoment, 0;
}

namespace {

using namespace kest::ipc::messages;
using namespace kest::variant;
using MessagesTest = kest::test::CleanTest;

// Nothing, no object, and each key with a type of another one.
const char* const kWrong[] = {
    "{}", "[]",
    R"({"authToken":true,"from":5,"to":2.5,"functionName":{"$timeval":[1,2]},"id":"5",)"
    R"("responseExpected":1,"isBroadcast":"true","queueIfDestUnavailable":null,)"
    R"("transactionId":2.0,"timeStamp":12})"};

TEST_F(MessagesTest, MissingAndMistypedKeysGetTheirDefaults) {
    fakePid = 1;
    fakeMoment = {0, 7};
    for (const char* wrong : kWrong) {
        Variant received;
        ASSERT_TRUE(Variant::FromJson(wrong, received));
        BaseRequestMessage request(received);
        ValidateAuthToken token(received), read(received);
        request.NormalizeFields();
        token.NormalizeFields();
        EXPECT_NEAR(static_cast<double>(time(nullptr)), token["timeStamp"], 5);
        read.timeStamp(token.timeStamp());
        EXPECT_EQ("ValidateAuthToken", read.functionName());
        EXPECT_EQ("", read.authToken() + read.from() + read.to());
        EXPECT_TRUE(read.queueIfDestUnavailable() && read.responseExpected());
        EXPECT_FALSE(read.isBroadcast());
        EXPECT_EQ(-1, read.transactionId());
        EXPECT_EQ(0x1000000000007U, read.id());
        EXPECT_EQ(token.ToJson(), read.ToJson());

        request.Remove("authToken");
        request["timeStamp"] = token["timeStamp"] = 0;
        EXPECT_EQ(R"({"from":"","functionName":"","id":{"$uint64":281474976710663},)"
                  R"("isBroadcast":false,"queueIfDestUnavailable":true,"responseExpected":false,)"
                  R"("timeStamp":0,"to":"","transactionId":-1})",
                  request.ToJson());
        EXPECT_EQ(R"({"authToken":"","from":"","functionName":"ValidateAuthToken",)"
                  R"("id":{"$uint64":281474976710663},"isBroadcast":false,)"
                  R"("queueIfDestUnavailable":true,"responseExpected":true,"timeStamp":0,"to":"",)"
                  R"("transactionId":-1})",
                  token.ToJson());
    }
    fakePid = 0;
}

TEST_F(MessagesTest, NormalizingKeepsWhatHasItsTypeAndIsNotOurs) {
    ValidateAuthToken message;
    message["extra"].Append(1);
    message["functionName"] = message["to"] = "x";
    message["isBroadcast"] = true;
    message["queueIfDestUnavailable"] = message["responseExpected"] = false;
    message["transactionId"] = 7ULL;
    message["id"] = -1;
    message.from("a");
    message.to("b");
    message.authToken("t");
    message.timeStamp({1, 2});
    EXPECT_EQ("x", message.functionName());
    message.NormalizeFields();
    EXPECT_EQ(R"({"authToken":"t","extra":[1],"from":"a","functionName":"ValidateAuthToken",)"
              R"("id":18446744073709551615,"isBroadcast":true,"queueIfDestUnavailable":false,)"
              R"("responseExpected":false,"timeStamp":{"$timeval":[1,2]},"to":"b",)"
              R"("transactionId":7})",
              message.ToJson());
    EXPECT_EQ("abt2", message.from() + message.to() + message.authToken() +
                          std::to_string(message.timeStamp().tv_usec));
    message.BaseMessage::functionName("x");
    EXPECT_EQ("x", message.BaseMessage::functionName());
    message.functionName("y");
    EXPECT_EQ("ValidateAuthToken", message.functionName());
}

TEST_F(MessagesTest, IdsHaveTheirBits) {
    const std::tuple<pid_t, timespec, uint64_t> cases[] = {
        {0x12345, {0, 0}, 0x2345000000000000},        {0x10000, {2, 147483647}, 0x000000007FFFFFFF},
        {0xFFFF, {2, 147483648}, 0xFFFFFFFF80000000}, {1, {4, 294967295}, 0x0001FFFFFFFFFFFF},
        {1, {4, 294967296}, 0x0001000000000000},      {1, {2147483647, 0}, 0x0001FFFFC4653600},
    };
    for (const auto& [pid, at, id] : cases) {
        fakePid = pid;
        fakeMoment = at;
        EXPECT_EQ(id, IdGenerator::GenerateId());
    }
    fakePid = 0;
}

}  // namespace
