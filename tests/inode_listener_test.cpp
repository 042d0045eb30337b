#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include <kest/utils/inode_listener.h>

#include "support/clean_test.h"
#include "support/temp_dir.h"

static int lowestFd = 0;

extern "C" int inotify_init1(int flags) noexcept {
    const int fd = static_cast<int>(syscall(SYS_inotify_init1, flags));
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, lowestFd);
    close(fd);
    return moved;
}

namespace {

using Names = std::vector<std::string>;
using kest::test::logTexts;

class InodeListenerTest : public kest::test::CleanTest, public kest::utils::IInodeNotifier {
  protected:
    // Nameless ones are told by their mask.
    void onInodeEvent(const std::string& name, uint32_t mask) override {
        names.push_back(name.empty() ? std::to_string(mask) : name);
        then();
    }
    bool start(const std::string& regex) {
        return listener.start(dir.path(), regex, IN_CREATE | IN_DELETE_SELF, this);
    }
    void create() const {
        for (const std::string& name : created) {
            close(creat((dir / name).c_str(), 0600));
            unlink((dir / name).c_str());
        }
    }

    const Names created = {"a b.jpg", "line\nbreak*", ".jpg"};
    kest::test::TempDir dir;
    Names names;
    kest::utils::InodeListener listener;
    std::function<void()> then = [&] { EXPECT_TRUE(listener.service(1000000)); };
};

TEST_F(InodeListenerTest, ReportsMatchingNamesByteForByteUntilStopped) {
    const auto stop = [&] { EXPECT_TRUE(listener.stop() && start("x") && listener.stop()); };
    const std::tuple<const char*, Names, std::function<void()>> cases[] = {
        {"\\.jpg$", {"a b.jpg", ".jpg"}, then},
        {"[*]", {"line\nbreak*"}, then},
        {"", created, then},
        {"", {"a b.jpg"}, stop},
    };
    for (const auto& [regex, expected, action] : cases) {
        then = action;
        names.clear();
        EXPECT_TRUE(start(regex));
        create();
        EXPECT_TRUE(listener.service(0));
        EXPECT_EQ(expected, names) << regex;
        EXPECT_TRUE(listener.stop());
    }
    EXPECT_EQ(Names(), logTexts());
}

TEST_F(InodeListenerTest, RefusesWithItsMessages) {
    EXPECT_TRUE(listener.service(1000000) && listener.stop());
    EXPECT_FALSE(listener.start("", "", IN_CREATE, this) || listener.start("/", "", 0, this));
    EXPECT_FALSE(start("(") || start("x"));
    std::vector<inotify_event*> events(1);
    EXPECT_TRUE(listener.read(events) && events.empty() && listener.stop());
    EXPECT_FALSE(listener.start(dir / "none", "x", IN_CREATE, this));
    lowestFd = FD_SETSIZE;
    EXPECT_TRUE(listener.stop() && start("x") && !listener.service(0));
    lowestFd = 0;
    EXPECT_TRUE(listener.stop());
    EXPECT_THAT(logTexts(),
                testing::ElementsAre("Invalid directory name (empty)",
                                     "Invalid flags value (should be non-zero)",
                                     testing::StartsWith("Failed to compile regex: "),
                                     "Already started", "`read()` has nothing to return. Try again",
                                     "`inotify_add_watch()` error", "`select()` error"));
}

TEST_F(InodeListenerTest, TellsOfLostEventsAndOfALostFolder) {
    EXPECT_TRUE(start("none"));
    const int limit = std::stoi(kest::test::readFile("/proc/sys/fs/inotify/max_queued_events"));
    for (int i = 0; i <= limit; i += 3)
        create();
    for (int i = 0; i <= limit && names.empty(); ++i)
        EXPECT_TRUE(listener.service(0));
    EXPECT_EQ(Names{std::to_string(IN_Q_OVERFLOW)}, names);
    rmdir(dir.path().c_str());
    EXPECT_TRUE(listener.service(0));
    EXPECT_EQ(std::to_string(IN_IGNORED), names.back());
    EXPECT_TRUE(listener.stop());
}

}  // namespace
