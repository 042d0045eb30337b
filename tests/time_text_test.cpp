#include <kest/utils/string_utils.h>
#include <kest/utils/timer.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <tuple>

#include "support/clean_test.h"
#include "support/isolated.h"
#include "support/temp_dir.h"

namespace {

using namespace kest::test;
using namespace kest::utils;
using testing::ElementsAre, testing::MatchesRegex;

constexpr char kMarker[] = "/etc/last_timesync_monotonic_ts";

// From a block of exactly that size: a read beyond it does not go unseen.
bool parse(const std::string& text, timeval& tv) {
    const std::unique_ptr<char[]> exact(new char[text.size()]);
    text.copy(exact.get(), text.size());
    return stringToTimeval(exact.get(), static_cast<unsigned>(text.size()), &tv);
}

TEST(TimeText, StampsAreWrittenAndReadBack) {
    const std::tuple<const char*, long long, long, const char*> cases[] = {
        {"1970-01-01T00:00:00.999+00:00", 0, 999000, nullptr},
        {"1969-12-31T23:59:59.000+00:00", -1, 0, nullptr},
        {"2020-01-01T12:00:00.250+02:00", 1577872800, 250000, "2020-01-01T10:00:00.250+00:00"},
        {"2020-01-01T12:00:00.250-02:30", 1577889000, 250000, "2020-01-01T14:30:00.250+00:00"},
        {"2020-01-01T00:00:00.007+29:59", 1577728860, 7000, "2019-12-30T18:01:00.007+00:00"},
    };
    for (const auto& [text, seconds, us, utc] : cases) {
        timeval tv = {};
        EXPECT_TRUE(parse(text, tv) && tv.tv_sec == seconds && tv.tv_usec == us) << text;
        EXPECT_EQ(utc == nullptr ? text : utc, timevalToString(&tv));
    }
    const timeval truncated = {0, 999999};
    EXPECT_EQ("1970-01-01T00:00:00.999+00:00", timevalToString(&truncated));
    EXPECT_EQ("", timevalToString(nullptr));
}

TEST(TimeText, OtherFormsAreRefusedAndTouchNothing) {
    const std::string good = "2020-01-01T12:00:00.250+02:00";
    timeval tv = {11, 22};
    for (size_t length = 0; length < good.size(); ++length)
        EXPECT_FALSE(parse(good.substr(0, length), tv)) << length;
    // Each of these characters where it does not belong; '=' stands for what is good.
    const std::string spoilt("====/===== =:====7=,==xZ3:.6\0", good.size());
    for (size_t i = 0; i < good.size(); ++i) {
        if (spoilt[i] == '=') continue;
        EXPECT_FALSE(parse(std::string(good).replace(i, 1, 1, spoilt[i]), tv)) << i;
    }
    EXPECT_FALSE(parse(good + "0", tv));
    EXPECT_FALSE(stringToTimeval(nullptr, 29, &tv));
    EXPECT_TRUE(tv.tv_sec == 11 && tv.tv_usec == 22);
}

TEST(TimeSync, MarkerDecides) {
    Isolated().empty("/etc").run([] {
        EXPECT_FALSE(isTimeSyncedLately(3600));
        EXPECT_THAT(logTexts(), ElementsAre());
        writeFile(kMarker, "abc");
        EXPECT_FALSE(isTimeSyncedLately(3600));
        EXPECT_THAT(logTexts(), ElementsAre("Timesync timestamp file contents invalid: 'abc'"));
        writeFile(kMarker, " " + std::to_string(nowMs() - 2000) + " ms\n");
        EXPECT_TRUE(isTimeSyncedLately(3600));
        EXPECT_FALSE(isTimeSyncedLately(1) || isTimeSyncedLately(-1));
        ASSERT_TRUE(unlink(kMarker) == 0 && symlink("/etc", kMarker) == 0);
        EXPECT_FALSE(isTimeSyncedLately(3600));
        EXPECT_EQ("Failed to open timesync timestamp", logTexts().back());
    });
}

TEST(TimeText, OverlayShowsUptimeUntilTheClockIsTrusted) {
    Isolated().empty("/etc").run([] {
        EXPECT_THAT(generateOsdTimeString("%Y"),
                    MatchesRegex("[0-9]+ days [0-2][0-9]:[0-5][0-9]:[0-5][0-9]"));
        writeFile(kMarker, std::to_string(nowMs()));
        setenv("TZ", "XXX-3", 1);
        EXPECT_EQ("XXX", generateOsdTimeString("%Z"));
        EXPECT_THAT(generateOsdTimeString(nullptr), MatchesRegex("[0-9-]{10}  [0-9:]{8}"));
        EXPECT_EQ(20u, generateOsdTimeString("").size());
        EXPECT_EQ("", generateOsdTimeString(std::string(300, 'x').c_str()));
    });
}

}  // namespace
