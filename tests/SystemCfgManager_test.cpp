#include <fcntl.h>
#include <kest/cfg/SystemCfgManager.h>
#include <sqlite3.h>
#include <sys/mount.h>

#include <filesystem>

#include "support/child.h"
#include "support/clean_test.h"
#include "support/isolated.h"
#include "support/libc.h"
#include "support/temp_dir.h"

// Steps of SQLite's commit before the process is killed.
static int stepsLeft = -1;

static void step() {
    if (stepsLeft >= 0 && stepsLeft-- == 0) raise(SIGKILL);
}

extern "C" int fdatasync(int fd) {
    step();
    return LIBC(fdatasync)(fd);
}

extern "C" int unlink(const char* path) noexcept {
    step();
    return unlinkat(AT_FDCWD, path, 0);
}

namespace {

namespace fs = std::filesystem;
using namespace kest::test;
using kest::cfg::SystemCfgManager;
using testing::ElementsAre, testing::IsEmpty, testing::StartsWith;

class SystemCfgManagerTest : public CleanTest {
  protected:
    void SetUp() override {
        setenv("KEST_SYSTEM_CFG", path().c_str(), 1);
        CleanTest::SetUp();
    }
    std::string path() const { return dir_ / "system.db"; }

    TempDir dir_;
};

// A committed value, or -1 when it is missing, -2 when it cannot be read.
int stored(const std::string& key) {
    SystemCfgManager store;
    int value = -1;
    bool missing = true;
    return store.init() && store.get(key, &value, &missing) && missing == (value == -1) ? value
                                                                                        : -2;
}

bool change(const std::string& key, int value) {
    SystemCfgManager store;
    return store.init() && store.set(key, value, nullptr) && store.close(true, false);
}

TEST_F(SystemCfgManagerTest, KeepsWhatIsCommitted) {
    bool changed = false, missing = false;
    for (const bool commit : {false, true}) {
        SystemCfgManager store;
        EXPECT_TRUE(store.init() && store.set("ssh", 1, &changed) && changed);
        EXPECT_TRUE(store.close(commit, false));
    }
    EXPECT_EQ(fs::perms{0600}, fs::status(path()).permissions());
    SystemCfgManager store;
    int value = 77;
    EXPECT_TRUE(store.init() && store.get("http", &value, &missing) && missing);
    EXPECT_EQ(77, value);
    EXPECT_TRUE(store.get("ssh", &value, &missing) && !missing);
    EXPECT_EQ(1, value);
    EXPECT_TRUE(store.set("ssh", 1, &changed) && !changed);
    EXPECT_TRUE(store.set("ssh", -5, &changed) && changed && store.close(true, false));
    EXPECT_THAT(logTexts(), IsEmpty());
    EXPECT_FALSE(store.set("ssh", 2, &changed) || store.close(true, false));
    EXPECT_EQ(-5, stored("ssh"));
}

TEST_F(SystemCfgManagerTest, ProcessesTakeTurns) {
    const auto count = [] {
        for (int i = 0; i < 20; ++i) {
            SystemCfgManager store;
            int value = 0;
            EXPECT_TRUE(store.init() && store.get("count", &value, nullptr));
            EXPECT_TRUE(store.set("count", value + 1, nullptr) && store.close(true, false));
        }
    };
    Child other(count);
    count();
    EXPECT_EQ(0, other.end());
    EXPECT_EQ(40, stored("count"));
}

TEST_F(SystemCfgManagerTest, WhoWaitsTooLongFails) {
    SystemCfgManager first, second;
    // It has only read so far, but could go on to write.
    ASSERT_TRUE(change("a", 1) && first.init() && first.get("a", nullptr, nullptr));
    EXPECT_FALSE(second.init());
    EXPECT_THAT(logTexts(), ElementsAre("Failed to open " + path() + ": database is locked"));
    EXPECT_TRUE(first.close(true, false));
}

TEST_F(SystemCfgManagerTest, KilledAnywhereInACommitKeepsAllOrNothing) {
    ASSERT_TRUE(change("a", 0) && change("b", 0));
    int killed = 0, status = -1;
    for (int steps = 0; status != 0; ++steps) {
        const int before = stored("a");
        status = Child([&] {
                     SystemCfgManager store;
                     EXPECT_TRUE(store.init() && store.set("a", steps + 1, nullptr));
                     EXPECT_TRUE(store.set("b", steps + 1, nullptr));
                     stepsLeft = steps;
                     EXPECT_TRUE(store.close(true, false));
                 }).end();
        killed += WIFSIGNALED(status) ? 1 : 0;
        EXPECT_EQ(stored("a"), stored("b")) << "killed at step " << steps;
        EXPECT_THAT(stored("a"), testing::AnyOf(before, steps + 1));
    }
    EXPECT_GT(killed, 3);
    EXPECT_EQ(killed + 1, stored("a")) << "not killed any more";
    EXPECT_THAT(logTexts(), IsEmpty());
}

TEST_F(SystemCfgManagerTest, CopyInAChildLeavesTheTransactionAlone) {
    SystemCfgManager store;
    ASSERT_TRUE(store.init() && store.set("a", 1, nullptr));
    Child child([&store] {
        EXPECT_FALSE(store.set("a", 2, nullptr) || store.close(true, false));
        store.~SystemCfgManager();
        // Without a look for leaks: the parent's database is left on purpose.
        if (!HasFailure()) raise(SIGUSR1);
    });
    EXPECT_EQ(SIGUSR1, child.end());
    EXPECT_TRUE(store.close(true, false));
    EXPECT_EQ(1, stored("a"));
}

TEST_F(SystemCfgManagerTest, RefusesWhatIsNoStore) {
    writeFile(dir_ / "text", std::string(5000, 'x'));
    for (const std::string& where :
         {dir_ / "text", dir_ / "no/system.db", dir_.path(), std::string("system.db"),
          std::string(), std::string(":memory:")}) {
        clearLog();
        setenv("KEST_SYSTEM_CFG", where.c_str(), 1);
        SystemCfgManager store;
        EXPECT_FALSE(store.init()) << where;
        EXPECT_EQ(1U, logTexts().size()) << where;
        EXPECT_FALSE(store.set("a", 1, nullptr));
    }
    EXPECT_EQ(std::string(5000, 'x'), readFile(dir_ / "text"));
    EXPECT_FALSE(fs::exists(dir_ / "no") || fs::exists("system.db") || fs::exists(":memory:"));
}

TEST_F(SystemCfgManagerTest, RefusesValuesThatAreNoInt) {
    ASSERT_TRUE(change("a", 1));
    sqlite3* database = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(path().c_str(), &database));
    for (const char* value : {"'text'", "2147483648", "1.5"}) {
        const std::string sql = std::string("UPDATE settings SET value = ") + value;
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr));
        EXPECT_EQ(-2, stored("a")) << value;
        EXPECT_EQ("a in " + path() + " is no int", logTexts().back());
    }
    sqlite3_close(database);
    EXPECT_TRUE(change("a", 5));
    EXPECT_EQ(5, stored("a"));
}

TEST_F(SystemCfgManagerTest, FullOrReadOnlyDiskKeepsTheOldValues) {
    Isolated().empty("/etc/kest").run([] {
        unsetenv("KEST_SYSTEM_CFG");
        if (mount("none", "/etc/kest", "tmpfs", 0, "size=64k") != 0) GTEST_SKIP() << "no mount";
        ASSERT_TRUE(change("a", 1));
        int added = 0;
        const std::string text(1000, 'x');
        while (added < 100 && change(text + std::to_string(added), 1))
            ++added;
        EXPECT_GT(added, 3);
        EXPECT_LT(added, 100);
        EXPECT_THAT(logTexts(), ElementsAre(StartsWith("Failed to write /etc/kest/system.db: ")));
        EXPECT_EQ(1, stored("a"));
        EXPECT_EQ(1, stored(text + std::to_string(added - 1)));
        EXPECT_EQ(-1, stored(text + std::to_string(added)));
        ASSERT_EQ(0, mount("none", "/etc/kest", "", MS_REMOUNT | MS_RDONLY, nullptr));
        EXPECT_EQ(1, stored("a"));
        EXPECT_FALSE(change("a", 2));
    });
}

}  // namespace
