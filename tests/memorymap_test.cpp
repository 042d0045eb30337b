#include <kest/utils/memorymap.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <functional>

#include <kest/utils/string_utils.h>

#include "support/clean_test.h"
#include "support/isolated.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

using namespace kest::test;
using namespace kest::utils;
using testing::ElementsAre, testing::MatchesRegex;

// Kernels without the one way to read a word safely.
static bool oldKernel = false;

extern "C" long syscall(long number, ...) noexcept {
    long arguments[6];
    va_list list;
    va_start(list, number);
    for (long& argument : arguments)
        argument = va_arg(list, long);
    va_end(list);
    if (oldKernel && number == SYS_process_vm_readv) return errno = ENOSYS, -1;
    return reinterpret_cast<decltype(&syscall)>(dlsym(RTLD_NEXT, "syscall"))(
        number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}

namespace {

using MemoryMapTest = CleanTest;

TEST_F(MemoryMapTest, ReadsEveryLineNotUnderValgrind) {
    Isolated().run([] {
        ASSERT_EQ(0, mount("tmpfs", "/proc", "tmpfs", 0, nullptr));
        ASSERT_TRUE(mkdir("/proc/self", 0755) == 0 && mkdir("/proc/7", 0755) == 0);
        const std::string text =
            "1000-2000 r-xp 0000a000 08:1f 77   /bin/a\n"
            "2000-3000 rw-p 0 00:00 0\n"
            "  3000-4000 r--s 0 00:00 9 /tmp/b c\n"
            "4000-5000 r--p 0 00:00 9 /" +
            std::string(5000, 'x') +
            "\n"
            "junk\n"
            "5000-6000 r--p 0 00:00 9 /gone (deleted)\n"
            "6000-7000 r-xp 0 0";
        writeFile("/proc/7/maps", text);
        writeFile("/proc/self/maps", "a-b r--p 0 0:0 1 /self\n");
        MemoryMap map;
        EXPECT_TRUE(map.GetMemoryMap(0) && map.entryCount() == 2 && map.entries()[1].end == 0);
        EXPECT_TRUE(map.GetMemoryMap(7));
        EXPECT_FALSE(map.GetMemoryMap(-1));
        EXPECT_THAT(logTexts(),
                    ElementsAre("The following memory map line could not be parsed `junk`",
                                "The following memory map line could not be parsed "
                                "`6000-7000 r-xp 0 0`",
                                "Unable to open file `/proc/18446744073709551615/maps`"));
        EXPECT_EQ(4, logLines()[0].level);
        EXPECT_EQ(text, map.text());
        EXPECT_EQ(text.size(), map.textLength());
        ASSERT_EQ(7U, map.entryCount());
        const MemoryMapEntry* const entry = map.entries();
        EXPECT_EQ("1000 2000 r-xp a000 8 1f 77 /bin/a",
                  format("%zx %zx %s %zx %zx %zx %zu %s", entry->start, entry->end,
                         entry->permissions, entry->offset, entry->deviceMajor, entry->deviceMinor,
                         entry->inode, entry->path));
        std::vector<std::string> paths;
        for (unsigned i = 0; i < map.entryCount(); ++i) {
            EXPECT_EQ(entry[i].pathLength, strlen(entry[i].path));
            paths.push_back(entry[i].path);
        }
        EXPECT_THAT(paths, ElementsAre("/bin/a", "", "/tmp/b", "/" + std::string(4094, 'x'), "",
                                       "/gone", ""));
        EXPECT_EQ(entry, map.Find(0x2000)) << "the end counts as inside";
        EXPECT_EQ(entry + 1, map.Find(0x2001));
        EXPECT_EQ(entry + 4, map.Find(0)) << "a line that was not parsed";
        EXPECT_EQ(nullptr, map.Find(0x6001));
        EXPECT_EQ(0, umount("/proc"));
    });
}

// Lines of the trace that `print` writes to standard error, without its heading and its end.
std::vector<std::string> traced(const std::function<void()>& print) {
    const TempDir dir;
    const int real = dup(2);
    const int fd = open((dir / "trace").c_str(), O_CREAT | O_RDWR, 0600);
    dup2(fd, 2);
    print();
    dup2(real, 2);
    close(real);
    close(fd);
    const std::string text = readFile(dir / "trace");
    const std::string heading = "--- STACK TRACE ---\n";
    const std::string rest = "--- MEMORY MAP ---\n\n\n";  // no map before the installation
    EXPECT_TRUE(startsWith(text, heading) && endsWith(text, rest)) << text;
    std::vector<std::string> lines;
    split(text.substr(heading.size(), text.size() - heading.size() - rest.size()), "\n", lines);
    lines.pop_back();
    return lines;
}

std::string line(const void* address) {
    return format("0x%08X: ", static_cast<uint32_t>(reinterpret_cast<uintptr_t>(address)));
}

const void* caller = nullptr;

template <typename... Target>
__attribute__((noinline)) void callForm(Target... target) {
    caller = __builtin_return_address(0);
    errno = ENOENT;
    PrintBacktrace(target...);
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(MemoryMapTest, BacktraceBeginsInTheCallerOfEachForm) {
    const std::vector<std::pair<void (*)(), const void*>> forms = {
        {[] { callForm(); }, reinterpret_cast<const void*>(callForm<>)},
        {[] { callForm(stderr); }, reinterpret_cast<const void*>(callForm<FILE*>)},
        {[] { callForm(2); }, reinterpret_cast<const void*>(callForm<int>)}};
    for (const auto& [form, start] : forms) {
        const auto lines = traced(form);
        ASSERT_LE(2U, lines.size());
        EXPECT_THAT(lines[0], MatchesRegex("0x[0-9A-F]{8}: "));
        const auto from = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(start));
        EXPECT_LT(static_cast<uint32_t>(std::stoul(lines[0], nullptr, 16)) - from, 1024U);
        EXPECT_EQ(line(caller), lines[1]);
    }
    PrintBacktrace(-1);
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

void expectSafeEnds() {
    EXPECT_EQ(200U, traced([] { nested(300); }).size());
    const auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    const auto top = ~uintptr_t{0};
    for (uintptr_t saved : {uintptr_t{0}, uintptr_t{8}, here + 1, here - 65536, top, top - 7,
                            top / 2 + 1, uintptr_t{0x41414140}}) {
        EXPECT_EQ(2U, traced([&] { printWithSavedFrame(saved); }).size()) << saved;
    }
}

TEST_F(MemoryMapTest, BacktraceEndsAfter200FramesAndWhereTheStackIsSmashed) {
    expectSafeEnds();
}

TEST_F(MemoryMapTest, OldKernelsReadTheStackAsSafelyNotUnderValgrind) {
    oldKernel = true;
    expectSafeEnds();
    oldKernel = false;
}

}  // namespace
