#include <dlfcn.h>
#include <kest/ipc/BlockingIpcHandler.h>
#include <kest/ipc/IpcService.h>
#include <kest/utils/auth.h>
#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <tuple>

#include "support/clean_test.h"
#include "support/isolated.h"
#include "support/temp_dir.h"

using kest::ipc::BlockingIpcHandler, kest::ipc::IpcService;

// The other daemon, unless it is asleep.
static IpcService* awake = nullptr;

// The real waits, but nobody has to wait five seconds for what never comes.
static int waitLess(const char* name, BlockingIpcHandler* handler, int ms) {
    const auto wait = reinterpret_cast<int (*)(BlockingIpcHandler*, int)>(dlsym(RTLD_NEXT, name));
    EXPECT_EQ(5000, ms);
    int result = ETIMEDOUT;
    for (int turn = 0; turn < 20 && result == ETIMEDOUT; ++turn) {
        if (awake != nullptr) awake->service();
        result = wait(handler, 10);
    }
    return result;
}

int BlockingIpcHandler::waitAllRequestsSent(int ms) {
    return waitLess("_ZN4kest3ipc18BlockingIpcHandler19waitAllRequestsSentEi", this, ms);
}

int BlockingIpcHandler::waitAllResponsesReceived(int ms) {
    return waitLess("_ZN4kest3ipc18BlockingIpcHandler24waitAllResponsesReceivedEi", this, ms);
}

namespace {

using namespace kest::test;
using namespace kest::utils;
using testing::ElementsAre;
using AuthTest = CleanTest;

const std::string kSecret = "Hello world!", kMd5 = "$1$saltstri$YMyguxXMBpd2TEZ.vS/3q1";
const std::string kSha512 =
    "$6$saltstring$svn8UoSVapNtMuq1ukKS4tPQd8iKwSMHWjl/O817G3uBnIFNjnQJ"
    "uesI68u4OTLiBFdcbYEdFCoEOfaS35inz1";

TEST_F(AuthTest, PasswordsAndHashesOfLocalUsers) {
    const std::tuple<std::string, std::string, int, bool> cases[] = {
        {kMd5, kSecret, AuthDone, true},
        {kSha512, kSecret, AuthDone, true},
        {kSha512, kSecret + " ", AuthDone, false},
        {kSha512, kSecret + '\0', AuthDone, false},
        {kSha512, std::string(1 << 20, 'a'), AuthDone, false},
        {R"($6$a\b$*0)", kSecret, AuthDone, false},  // crypt gives "*0" for such a salt
        {kSha512, "", AuthNoPassword, false},
        {"", kSecret, AuthStoredForm, false},
        {"!" + kSha512, kSecret, AuthStoredForm, false},
        {"$6$rounds=5000$salt$hash", kSecret, AuthStoredForm, false},
        {"$y$salt$hash", kSecret, AuthStoredForm, false},
    };
    Isolated().copy("/etc").run([&] {
        const auto descriptors = openDescriptors();
        std::string hash;
        bool ok = true;
        for (const auto& [stored, password, status, right] : cases) {
            writeFile("/etc/passwd", "other:x:1:1::/:\nuser:" + stored + ":1:1::/:\n");
            clearLog();
            EXPECT_EQ(status, authenticatePassword("user", password, ok)) << stored;
            EXPECT_TRUE(ok == right && logTexts().size() == (status == AuthDone ? 0 : 1)) << stored;
            EXPECT_TRUE(readUserHash("user", hash) == AuthDone && hash == stored);
            for (const std::string& given : {kMd5, kMd5 + "1"}) {
                const int result = authenticateHash("user", given, ok);
                EXPECT_EQ(status == AuthStoredForm ? status : 0, result);
                EXPECT_EQ(stored == given, ok);
            }
        }
        for (const std::string& user : {std::string("User"), std::string("user\0", 5)}) {
            EXPECT_EQ(AuthUnknownUser, authenticatePassword(user, kSecret, ok));
            EXPECT_EQ(AuthUnknownUser, authenticateHash(user, kMd5, ok));
            EXPECT_EQ(AuthUnknownUser, readUserHash(user, hash));
            EXPECT_EQ(AuthGivenForm, authenticateHash(user, "$y$salt$hash", ok = true));
            EXPECT_FALSE(ok);
        }
        EXPECT_EQ("$y$salt$hash", hash);
        EXPECT_EQ(descriptors, openDescriptors());
    });
}

TEST_F(AuthTest, LockingTakesNoOptionForAName) {
    Isolated().empty("/tmp").program("/usr/bin/passwd", "echo $# $@ >>/tmp/l; test $2 = a").run([] {
        EXPECT_TRUE(lockPassword("a") && unlockPassword("a"));
        EXPECT_FALSE(lockPassword("b"));
        for (const std::string& name : {std::string(), std::string("-a"), std::string("a\0", 2)})
            EXPECT_FALSE(lockPassword(name) || unlockPassword(name));
        EXPECT_EQ("2 -l a\n2 -u a\n2 -l b\n", readFile("/tmp/l"));
    });
}

TEST_F(AuthTest, TokensAreAskedFor) {
    TempDir folder;
    setenv("KEST_IPC_DIR", folder.path().c_str(), 1);
    auto peer = std::make_unique<IpcService>("kest_avclient");
    peer->onRequest([](auto& request, auto&) {
        EXPECT_TRUE(request["functionName"] == "ValidateAuthToken" && request["responseExpected"]);
        return request["authToken"] == "valid" ? 0 : EACCES;
    });
    ASSERT_EQ(0, peer->init());
    awake = peer.get();
    bool ok = false;
    EXPECT_TRUE(authenticateToken("valid", ok) == AuthDone && ok);
    EXPECT_TRUE(authenticateToken("other", ok) == AuthDone && !ok);
    EXPECT_EQ(AuthNoToken, authenticateToken("", ok = true));
    EXPECT_EQ(AuthIpcFailed, authenticateToken(std::string(1 << 20, 'a'), ok));
    awake = nullptr;
    EXPECT_EQ(AuthIpcFailed, authenticateToken("silent", ok));
    peer.reset();
    EXPECT_EQ(AuthIpcFailed, authenticateToken("nobody there", ok));
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
    setenv("KEST_IPC_DIR", "/dev/null", 1);
    EXPECT_EQ(AuthIpcFailed, authenticateToken("no folder", ok));
    EXPECT_TRUE(ok);
    EXPECT_EQ(EMSGSIZE, logLines()[1].errnoValue);
    EXPECT_THAT(logTexts(),
                ElementsAre("Token is empty", "Unable to send request",
                            "Error on waiting responses received", "Error on waiting requests sent",
                            "IPC folder \"/dev/null\" cannot be opened",
                            "Unable to create BlockingIpcHandler instance"));
}

}  // namespace
