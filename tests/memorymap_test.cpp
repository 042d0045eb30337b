#include <kest/utils/memorymap.h>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include <kest/utils/string_utils.h>

#include "support/clean_test.h"
#include "support/isolated.h"
#include "support/temp_dir.h"

using namespace kest::test;
using namespace kest::utils;
using testing::ElementsAre;

namespace {

using MemoryMapTest = CleanTest;

TEST_F(MemoryMapTest, ReadsEveryLineNotUnderValgrind) {
    Isolated().run([] {
        MemoryMap map;
        void (*const code)() = [] {};
        ASSERT_TRUE(map.GetMemoryMap(0) && map.entries()[map.entryCount() - 1].end == 0);
        const MemoryMapEntry* const own = map.Find(reinterpret_cast<uintptr_t>(code));
        EXPECT_TRUE(own != nullptr && own->permissions[2] == 'x' &&
                    endsWith(own->path, "/memorymap_test"));
        ASSERT_EQ(0, mount("tmpfs", "/proc", "tmpfs", 0, nullptr));
        ASSERT_EQ(0, mkdir("/proc/7", 0755));
        const std::string x(5000, 'x');
        const std::string text = R"(1000-2000 r-xp 0000a000 08:1f 77   /bin/a
2000-3000 rw-p 0 00:00 0
  3000-4000 r--s 0 00:00 9 /tmp/b c
4000-5000 r--p 0 00:00 9 )" + x + R"(
junk
5000-6000 r--p 0 00:00 9 /gone (deleted)
6000-7000 r-xp 0 0)";
        writeFile("/proc/7/maps", text);
        EXPECT_TRUE(map.GetMemoryMap(7) && !map.GetMemoryMap(-1)) << "which changes nothing";
        const std::string warning = "The following memory map line could not be parsed ";
        EXPECT_THAT(logTexts(),
                    ElementsAre(warning + "`junk`", warning + "`6000-7000 r-xp 0 0`",
                                "Unable to open file `/proc/18446744073709551615/maps`"));
        EXPECT_TRUE(map.text() == text && map.textLength() == text.size());
        std::vector<std::string> entries;
        for (unsigned i = 0; i < map.entryCount(); ++i) {
            const MemoryMapEntry& e = map.entries()[i];
            entries.push_back(format("%zx %s %zx %zx %zx %zu %u %s", e.end, e.permissions, e.offset,
                                     e.deviceMajor, e.deviceMinor, e.inode, e.pathLength, e.path));
        }
        EXPECT_THAT(
            entries,
            ElementsAre("2000 r-xp a000 8 1f 77 6 /bin/a", "3000 rw-p 0 0 0 0 0 ",
                        "4000 r--s 0 0 0 9 6 /tmp/b", "5000 r--p 0 0 0 9 4095 " + x.substr(0, 4095),
                        "0  0 0 0 0 0 ", "6000 r--p 0 0 0 9 5 /gone", "0  0 0 0 0 0 "));
        EXPECT_EQ(map.entries(), map.Find(0x2000)) << "the end counts as inside";
        EXPECT_TRUE(map.Find(0) == map.entries() + 4 && map.Find(0x6001) == nullptr);
        umount("/proc");
    });
}

// Lines of the trace that `print` writes to standard error, without its heading and its end.
std::vector<std::string> traced(const std::function<void()>& print) {
    testing::internal::CaptureStderr();
    print();
    const std::string text = testing::internal::GetCapturedStderr();
    const size_t end = text.find("--- MEMORY MAP ---\n\n\n");  // no map before the installation
    EXPECT_TRUE(startsWith(text, "--- STACK TRACE ---\n") && end != std::string::npos) << text;
    std::vector<std::string> lines;
    tokenize(text.substr(0, end), lines, "\n", true);
    lines.erase(lines.begin());
    return lines;
}

template <typename... Target>
__attribute__((noinline)) void callForm(Target... target) {
    errno = ENOENT;
    PrintBacktrace(target...);
    EXPECT_EQ(ENOENT, errno);
}

template <typename... Target>
void expectBeginInCaller(Target... target) {
    const auto lines = traced([&] { callForm(target...); });
    const auto first = static_cast<uint32_t>(std::stoul(lines.at(0), nullptr, 16));
    const auto caller = reinterpret_cast<uintptr_t>(callForm<Target...>);
    EXPECT_LT(first - static_cast<uint32_t>(caller), 512U);
}

TEST_F(MemoryMapTest, BacktraceBeginsInTheCallerOfEachForm) {
    expectBeginInCaller();
    expectBeginInCaller(2);
    expectBeginInCaller(stderr);
    PrintBacktrace(static_cast<FILE*>(nullptr));
}

__attribute__((noinline)) int nested(int depth) {
    if (depth == 0) return PrintBacktrace(), 0;
    volatile int below = nested(depth - 1);
    return below + 1;
}

// Prints a trace while this function's saved frame pointer is another.
__attribute__((noinline)) void printWithSavedFrame(uintptr_t saved) {
    auto* record = static_cast<volatile uintptr_t*>(__builtin_frame_address(0));
#if defined(__arm__) && !defined(__clang__)
    --record;
#endif
    const uintptr_t real = *record;
    *record = saved;
    PrintBacktrace();
    *record = real;
}

TEST_F(MemoryMapTest, BacktraceEndsAfter200FramesOrWhereTheStackIsSmashed) {
    const auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    const auto top = ~uintptr_t{0};
    EXPECT_EQ(200U, traced([] { nested(300); }).size());
    for (uintptr_t saved : {uintptr_t{0}, uintptr_t{8}, here + 1, here - 65536, top, top - 7,
                            top / 2 + 1, uintptr_t{0x41414140}}) {
        EXPECT_EQ(2U, traced([&] { printWithSavedFrame(saved); }).size()) << saved;
    }
}

}  // namespace
