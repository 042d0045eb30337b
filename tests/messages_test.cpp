#include <kest/ipc/IdGenerator.h>
#include <kest/ipc/messages.h>
#include <kest/utils/string_utils.h>
#include <unistd.h>

#include <tuple>

#include "support/clean_test.h"
#include "support/libc.h"

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

struct MessagesTest : kest::test::CleanTest {
    ~MessagesTest() override { fakePid = 0; }
};

// What all getters but that of the time give.
std::string read(ValidateAuthToken& m) {
    return kest::utils::format("%s %s %s %s %d%d%d %lld %llx", m.functionName().c_str(),
                               m.authToken().c_str(), m.from().c_str(), m.to().c_str(),
                               m.queueIfDestUnavailable(), m.responseExpected(), m.isBroadcast(),
                               0LL + m.transactionId(), 0ULL + m.id());
}

TEST_F(MessagesTest, MissingAndMistypedKeysGetTheirDefaults) {
    fakePid = 1;
    fakeMoment = {0, 7};
    for (const char* wrong :
         {"[]", R"({"functionName":{"$timeval":[1,2]},"authToken":true,"from":5,"to":2.5,"id":"5",)"
                R"("queueIfDestUnavailable":null,"responseExpected":1,"isBroadcast":"true",)"
                R"("transactionId":2.0,"timeStamp":12})"}) {
        Variant received;
        ASSERT_TRUE(Variant::FromJson(wrong, received));
        BaseRequestMessage request(received);
        ValidateAuthToken token(received), getters(received);
        token.NormalizeFields();
        EXPECT_NEAR(static_cast<double>(time(nullptr)), token["timeStamp"], 5);
        EXPECT_EQ("ValidateAuthToken    110 -1 1000000000007", read(getters));
        getters.timeStamp(token.timeStamp());
        EXPECT_EQ(token.ToJson(), getters.ToJson());
        request.NormalizeFields();
        request["timeStamp"] = 0;
        request.Remove("authToken");
        EXPECT_EQ(R"({"from":"","functionName":"","id":{"$uint64":281474976710663},)"
                  R"("isBroadcast":false,"queueIfDestUnavailable":true,"responseExpected":false,)"
                  R"("timeStamp":0,"to":"","transactionId":-1})",
                  request.ToJson());
    }
}

TEST_F(MessagesTest, NormalizingKeepsWhatHasItsTypeAndIsNotOurs) {
    ValidateAuthToken message(Variant("no object"));
    message.BaseMessage::functionName("x");
    message.from("a");
    message.to("b");
    message.authToken("t");
    message.timeStamp({1, 2});
    message["extra"] = message["isBroadcast"] = true;
    message["queueIfDestUnavailable"] = message["responseExpected"] = false;
    message["transactionId"] = 7ULL;
    message["id"] = -2;
    EXPECT_EQ("x t a b 001 7 fffffffffffffffe", read(message));
    message.NormalizeFields();
    EXPECT_EQ(R"({"authToken":"t","extra":true,"from":"a","functionName":"ValidateAuthToken",)"
              R"("id":18446744073709551614,"isBroadcast":true,"queueIfDestUnavailable":false,)"
              R"("responseExpected":false,"timeStamp":{"$timeval":[1,2]},"to":"b",)"
              R"("transactionId":7})",
              message.ToJson());
    message["functionName"] = "x";
    message.functionName("y");
    EXPECT_EQ("ValidateAuthToken", message.functionName());
}

TEST_F(MessagesTest, IdsHaveTheirBits) {
    const std::tuple<pid_t, timespec, uint64_t> cases[] = {
        {0x12345, {0, 0}, 0x2345000000000000},   {0x10000, {2, 147483647}, 0x000000007FFFFFFF},
        {0xFFFF, {2, 147483648}, ~0ULL << 31},   {1, {4, 294967295}, 0x0001FFFFFFFFFFFF},
        {1, {4, 294967296}, 0x0001000000000000}, {1, {2147483647, 0}, 0x0001FFFFC4653600},
    };
    for (const auto& [pid, at, id] : cases) {
        fakePid = pid;
        fakeMoment = at;
        EXPECT_EQ(id, IdGenerator::GenerateId());
    }
}

}  // namespace
