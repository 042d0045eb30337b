#include <kest/utils/rolling_list.h>
#include <kest/utils/timer.h>

#include <filesystem>
#include <limits>
#include <memory>

#include "support/clean_test.h"
#include "support/temp_dir.h"

namespace {

using kest::test::TempDir;
using kest::test::writeFile;
using std::filesystem::exists;
using testing::ElementsAre;

constexpr int kHourMs = 3600000;

std::vector<int> dropped;

// Notes its number when it goes, and may call back into its list then.
struct Item : IRollingListItem {
    Item(uint64_t stamp, int number, RollingList* callBack = nullptr)
        : stamp_(stamp), number_(number), callBack_(callBack) {}
    ~Item() override {
        dropped.push_back(number_);
        if (callBack_ == nullptr) return;
        callBack_->service();
        callBack_->deleteFront();
    }
    uint64_t age() const override { return stamp_; }

    const uint64_t stamp_;
    const int number_;
    RollingList* const callBack_;
};

TEST(RollingList, SizeLimitDropsTheOldestButNoneBelowTheMinimumAge) {
    dropped.clear();
    RollingList list;
    list.limitListSize(3);
    const auto now = static_cast<uint64_t>(nowMs());
    for (int i = 0; i < 4; ++i)
        EXPECT_TRUE(list.append(new Item(now, i)));
    EXPECT_THAT(dropped, ElementsAre(0));
    list.limitItemMinAge(kHourMs);
    list.limitItemMaxAge(1);  // contradicts the minimum, which was first
    list.append(new Item(now + kHourMs, 4));
    EXPECT_EQ(4, list.count());
    list.limitItemMinAge(0);
    list.limitListSize(-1);
    EXPECT_TRUE(list.service());
    EXPECT_THAT(dropped, ElementsAre(0, 1, 2, 3, 4));
    EXPECT_FALSE(list.append(nullptr));
}

TEST(RollingList, AgeLimitLooksAtTheFrontOnly) {
    dropped.clear();
    RollingList list;
    list.append(new Item(0, 0));
    list.limitItemMaxAge(std::numeric_limits<int>::max());  // longer than the machine may have run
    EXPECT_EQ(nowMs() > std::numeric_limits<int>::max(), list.service() && list.count() == 0);
    list.limitItemMaxAge(1);
    list.append(new Item(static_cast<uint64_t>(nowMs() + kHourMs), 1));
    list.append(new Item(0, 2));
    EXPECT_THAT(dropped, ElementsAre(0));
    EXPECT_EQ(2, list.count());
}

TEST(RollingList, DestructorsOfItemsMayCallBack) {
    dropped.clear();
    auto list = std::make_unique<RollingList>();
    list->limitListSize(3);
    for (int i = 0; i < 7; ++i)
        list->append(new Item(0, i, list.get()));
    EXPECT_THAT(dropped, ElementsAre(0, 1, 2, 3));
    list.reset();
    EXPECT_THAT(dropped, ElementsAre(0, 1, 2, 3, 4, 5, 6));
}

TEST(RollingFileList, RemovesFilesOnlyWhenAskedTo) {
    const TempDir dir;
    for (const bool deleteFiles : {true, false}) {
        RollingFileList list(deleteFiles);
        list.limitListSize(1);
        for (const char* name : {"a", "b"}) {
            writeFile(dir / name, name);
            list.append(dir / name);
        }
        EXPECT_EQ(!deleteFiles, exists(dir / "a"));
        EXPECT_TRUE(exists(dir / "b"));
        list.append(new RollingListItemFile(dir / "none", 0, true));
        EXPECT_EQ(!deleteFiles, exists(dir / "b"));
    }
}

TEST(ResourceFilenameRoller, NumbersRollOverAtTheLimit) {
    ResourceFilenameRoller roller("/snapshots/", "snap-", ".jpg", 11);
    EXPECT_EQ("/snapshots/snap-00.jpg", roller.getPath());
    for (int i = 0; i < 10; ++i)
        roller.incrementFilename();
    EXPECT_EQ("snap-10.jpg", roller.getFilename());
    roller.incrementFilename();
    EXPECT_EQ("snap-00.jpg", roller.getFilename());
    EXPECT_EQ("x0", ResourceFilenameRoller("", "x", "", 0).getPath());
}

TEST(ResourceFilenameRoller, CleanRemovesItsOwnNamesOnly) {
    const TempDir dir;
    const std::pair<const char*, bool> files[] = {{"s*[1]0.j", true},   {"s*[1]7.j", true},
                                                  {"s*[1]10.j", false}, {"s*[1]07.j", false},
                                                  {"s*[1]x.j", false},  {"sx[1]0.j", false}};
    for (const auto& [name, ours] : files)
        writeFile(dir / name, "");
    ResourceFilenameRoller roller(dir.path(), "s*[1]", ".j", 10);
    roller.incrementFilename();
    EXPECT_EQ(2, roller.cleanCwd());
    EXPECT_EQ("s*[1]0.j", roller.getFilename());
    for (const auto& [name, ours] : files)
        EXPECT_NE(ours, exists(dir / name)) << name;
    ASSERT_TRUE(std::filesystem::create_directory(dir / "s*[1]3.j"));
    EXPECT_EQ(-1, roller.cleanCwd());
}

}  // namespace
