#include <kest/utils/iobuffer.h>

#include <sys/mman.h>
#include <unistd.h>

#include "support/clean_test.h"
#include "support/libc.h"

static size_t noMemory = 0, crashes = 0, mapped = 0;
extern "C" void forceCrash() {
    ++crashes;
}
template <typename Function, typename... Args>
static void* allocate(Function, const char* name, size_t more, Args... args) {
    errno = ENOMEM;
    if (noMemory) return MAP_FAILED;
    mapped += more;
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name))(args...);
}
extern "C" void* mmap(void* at, size_t n, int protection, int flags, int fd, off_t from) noexcept {
    return allocate(&mmap, "mmap64", n, at, n, protection, flags, fd, from);
}
extern "C" void* mremap(void* at, size_t before, size_t after, int flags, ...) noexcept {
    return allocate(&mremap, "mremap", after - before, at, before, after, flags);
}
extern "C" int munmap(void* at, size_t n) noexcept {
    mapped -= n;
    return LIBC(munmap)(at, n);
}

namespace {

struct NothingLeftMapped {
    ~NothingLeftMapped() { EXPECT_EQ(0u, mapped); }
};

struct IOBufferTest : kest::test::CleanTest, NothingLeftMapped {
    const unsigned page = static_cast<unsigned>(getpagesize());
    kest::utils::IOBuffer buffer{"b"}, other{"other"};
    sockaddr_in from = {};
    int got = 0;
};

TEST_F(IOBufferTest, MovesOnlyWithoutOverlapAndShrinksWhenEmpty) {
    buffer.ReadFromRepeat('x', 8), buffer.Ignore(3), buffer.MoveData();
    EXPECT_TRUE(buffer.Consumed() == 3 && buffer.Ignore(1) && buffer.MoveData());
    EXPECT_TRUE(buffer.Consumed() == 0 && buffer.EnsureSize(page - 3));
    for (const unsigned limit : {0U, 2 * page, page + 1}) {
        EXPECT_EQ(2 * page, buffer.Capacity());
        buffer.SetFreeSpaceLimit(limit), buffer.Ignore(5);
    }
    EXPECT_EQ(page + 1, buffer.Capacity());
    EXPECT_THAT(kest::test::logTexts().at(0), testing::ContainsRegex("`b` buffer .*[57]$"));
}

// The same operations of random sizes on the buffer and on a string.
TEST_F(IOBufferTest, KeepsEveryByteInOrder) {
    const auto random = [](unsigned below) { return static_cast<unsigned>(rand()) % below; };
    std::string text, otherText;
    buffer.SetFreeSpaceLimit(page + 1);
    for (int step = 0; step < 2000; ++step) {
        const unsigned n = random(step % 100 == 0 ? 5000000 : 5000), skip = random(n + 1);
        const unsigned gone = random(9 * n + 1), at = random(buffer.Available() + 1);
        const unsigned length = std::min(n, buffer.Available() - at);
        std::string fresh(n, static_cast<char>(step)), own = text.substr(at, length);
        const iovec parts[] = {{fresh.data(), n}, {buffer.Begin() + at, length}};
        buffer.ReadFromBuffer(parts, 2, skip), buffer.ReadFromBuffer(buffer.Begin() + at, length);
        buffer.ReadFromRepeat('r', n), buffer.Ignore(gone);
        text.append(fresh, skip, n).append(own).append(own).append(n, 'r').erase(0, gone);
        ASSERT_TRUE(text == std::string(buffer.Begin(), buffer.Begin() + buffer.Available()));
        ASSERT_EQ(text == otherText, buffer == other);
        buffer.Swap(other), text.swap(otherText), buffer.Swap(buffer);
    }
}

TEST_F(IOBufferTest, WithoutMemoryLeavesTheDataAlone) {
    const iovec huge = {nullptr, UINT32_MAX + size_t{sizeof(size_t) > 4 ? 2 : 0}};
    buffer.ReadFromRepeat('x', 2 * page), buffer.Ignore(1), other.EnsureSize(1);
    EXPECT_FALSE(buffer.EnsureSize(UINT32_MAX) || buffer.EnsureSize(UINT32_MAX - 2 * page));
    EXPECT_FALSE(other.ReadFromBuffer(&huge, 1, 0));
    noMemory = 1;
    EXPECT_FALSE(other.EnsureSize(page + 1) || buffer.ReadFromBuffer(buffer.Begin(), 9));
    EXPECT_FALSE(buffer.ReadFromFd(-1, 9, got) || buffer.ReadFromTCPFd(-1, 9, got));
    EXPECT_FALSE(buffer.ReadFromUDPFd(-1, got, from));
    buffer.ReadFromRepeat('y', 9), noMemory = 0;
    EXPECT_THAT(kest::test::logTexts(), testing::Each(testing::HasSubstr("memory: (12) Cannot")));
    EXPECT_TRUE(crashes == 9 && buffer.Published() == 2 * page);
}

TEST_F(IOBufferTest, ReportsWhatDescriptorsDo) {
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends));
    const sockaddr anyName = {AF_UNIX, {}};
    buffer.ReadFromRepeat('x', 0x10000);
    while (buffer.WriteToFd(ends[0], 5, got) && got != 0)
        continue;
    EXPECT_TRUE(other.ReadFromFd(ends[1], 9, got) && other.ReadFromUDPFd(ends[1], got, from));
    EXPECT_TRUE(bind(ends[0], &anyName, 2) == 0 && other.ReadFromUDPFd(ends[1], got, from));
    EXPECT_EQ(AF_UNIX, from.sin_family) << "the nameless sender before it set the length to 0";
    EXPECT_TRUE(other.ReadFromTCPFd(ends[1], 9, got) && other.ReadFromTCPFd(ends[0], 9, got));
    EXPECT_TRUE(got == 0 && errno == EAGAIN && other.Available() == 20);
    EXPECT_TRUE(write(ends[1], "", 0) == 0 && other.ReadFromTCPFd(ends[0], 9, got) && errno == 0);
    EXPECT_FALSE(other.ReadFromFd(ends[0], 9, got) || other.ReadFromTCPFd(-1, 5, got) ||
                 other.ReadFromUDPFd(-1, got, from) || buffer.WriteToFd(-1, 5, got));
    EXPECT_EQ(4u, kest::test::logTexts().size());
    close(ends[0]), close(ends[1]);
}

TEST_F(IOBufferTest, DumpsInAlignedColumns) {
    const unsigned char bytes[] = "GET / HTTP/1.1\r\n\x7f~";
    EXPECT_THAT(buffer.DumpBuffer(bytes, 18),
                testing::HasSubstr(
                    "00000000  47 45 54 20 2f 20 48 54  54 50 2f 31 2e 31 0d 0a  GET / HTTP/1.1..\n"
                    "00000016  7f 7e                                             .~\n"));
    buffer.ReadFromRepeat('x', 100000020), buffer.Ignore(1);
    EXPECT_THAT(buffer.ToString(99999995, 22), testing::HasSubstr("to 22 bytes\n99999995   78 "));
}

}  // namespace
