#include <kest/utils/timezone.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>

#include "support/clean_test.h"
#include "support/isolated.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace kest::test;
using kest::utils::setTimeZone;
using testing::ElementsAre, testing::HasSubstr;

using TimeZoneTest = CleanTest;

std::set<std::string> entriesOfEtc() {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator("/etc"))
        names.insert(entry.path().filename());
    return names;
}

TEST_F(TimeZoneTest, WritesRuleAndLink) {
    Isolated().empty("/etc").run([] {
        EXPECT_TRUE(setTimeZone("Europe/Berlin"));
        EXPECT_EQ("CET-1CEST,M3.5.0,M10.5.0/3\n", readFile("/etc/TZ"));
        EXPECT_EQ("/usr/share/zoneinfo/Europe/Berlin", fs::read_symlink("/etc/localtime"));
        EXPECT_EQ(fs::perms{0644}, fs::status("/etc/TZ").permissions());
        EXPECT_TRUE(setTimeZone("America/St_Johns"));
        EXPECT_EQ("NST3:30NDT,M3.2.0,M11.1.0\n", readFile("/etc/TZ"));
        EXPECT_EQ((std::set<std::string>{"TZ", "localtime"}), entriesOfEtc());
        EXPECT_THAT(logTexts(), ElementsAre());
    });
}

TEST_F(TimeZoneTest, RefusesWhatIsNoZone) {
    Isolated().file("/etc/TZ", "UTC0\n").run([] {
        const auto before = entriesOfEtc();
        for (const char* zone : {"Mars/Base", "../../../etc/TZ", "", "Europe", "../zoneinfo"})
            EXPECT_FALSE(setTimeZone(zone)) << zone;
        EXPECT_FALSE(setTimeZone(std::string("Europe/Berlin\0x", 15)));
        EXPECT_THAT(logTexts(),
                    ElementsAre("Failed to resolve path: /usr/share/zoneinfo/Mars/Base",
                                "Illegal path: /etc/TZ", "Illegal path: /usr/share/zoneinfo",
                                "Failed to read TZ string", "Illegal path: /usr/share/zoneinfo",
                                HasSubstr("Failed to resolve path: ")));
        EXPECT_EQ("UTC0\n", readFile("/etc/TZ"));
        EXPECT_EQ(before, entriesOfEtc());
    });
}

TEST_F(TimeZoneTest, FailingStepsLeaveNoTemporaryFiles) {
    Isolated().empty("/etc").run([] {
        // A folder cannot be replaced by a file: the renames fail in turn.
        ASSERT_TRUE(fs::create_directory("/etc/localtime"));
        EXPECT_FALSE(setTimeZone("Asia/Tokyo"));
        EXPECT_EQ("JST-9\n", readFile("/etc/TZ"));
        ASSERT_TRUE(fs::remove("/etc/TZ") && fs::create_directory("/etc/TZ"));
        EXPECT_FALSE(setTimeZone("Asia/Tokyo"));
        EXPECT_EQ((std::set<std::string>{"TZ", "localtime"}), entriesOfEtc());

        if (mount("none", "/etc", "", MS_REMOUNT | MS_RDONLY, nullptr) != 0)
            GTEST_SKIP() << "no mount";
        EXPECT_FALSE(setTimeZone("Asia/Tokyo"));
        EXPECT_THAT(logTexts(),
                    ElementsAre("Failed to rename sym link", "Failed to rename sym link",
                                "Failed to make temp file"));
    });
}

TEST_F(TimeZoneTest, FullDiskKeepsTheOldRule) {
    Isolated().empty("/etc").run([] {
        // Two pages and few files: one page for the old rule, one for what fills the rest.
        if (mount("none", "/etc", "tmpfs", 0, "size=8k") != 0) GTEST_SKIP() << "no mount";
        writeFile("/etc/TZ", "UTC0\n");
        writeFile("/etc/filler", std::string(4096, 'x'));
        EXPECT_FALSE(setTimeZone("Asia/Tokyo"));
        EXPECT_EQ("Failed to write TZ string", logTexts().back());
        EXPECT_EQ("UTC0\n", readFile("/etc/TZ"));
        EXPECT_EQ((std::set<std::string>{"TZ", "filler"}), entriesOfEtc());
    });
}

}  // namespace
