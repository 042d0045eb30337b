#include <kest/utils/file.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include "support/clean_test.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using kest::test::clearLog;
using kest::test::logLines;
using kest::test::readFile;
using kest::test::writeFile;
using kest::utils::File;

constexpr unsigned long long kGiB = 1ULL << 30;

class FileTest : public kest::test::CleanTest {
  protected:
    void TearDown() override {
        file.Close();
        CleanTest::TearDown();
    }
    void open(const std::string& content, int mode) {
        writeFile(path, content);
        ASSERT_TRUE(file.Initialize(path, mode));
    }
    std::string lastLog() {
        const auto line = logLines().empty() ? kest::test::LogLine() : logLines().back();
        clearLog();
        return line.function + " " + std::to_string(line.level) + " " + line.text;
    }

    kest::test::TempDir dir;
    const std::string path = dir / "file";
    File file;
    std::string text = "before";
};

TEST_F(FileTest, ModesOpenAsDocumented) {
    const struct {
        bool opensMissing, writes;
        std::string content;
    } cases[] = {
        {false, false, "old"}, {false, true, "new"}, {true, true, "new"}, {true, true, "oldnew"}};
    for (int mode = File::Read; mode <= File::Append; ++mode) {
        const auto& expected = cases[mode];
        EXPECT_EQ(expected.opensMissing, file.Initialize(dir / std::to_string(mode), mode));
        open("old", mode);
        EXPECT_EQ(FD_CLOEXEC, fcntl(file.GetFD(), F_GETFD));
        EXPECT_EQ(expected.writes, file.WriteString("new"));
        EXPECT_EQ(expected.content, readFile(path)) << mode;
    }
    EXPECT_FALSE(file.Initialize(path, 4));
    EXPECT_EQ("Initialize 3 Invalid open mode", lastLog());
    EXPECT_FALSE(file.IsOpen());
    EXPECT_FALSE(file.Initialize(dir.path(), File::Append, O_EXCL));
    EXPECT_EQ(EEXIST, logLines().at(0).errnoValue);
    EXPECT_EQ("Initialize 3 Unable to open file " + dir.path() + " with mode `4c2`", lastLog());
    EXPECT_EQ("file: " + dir.path() + ", file descriptor: -1", file.info());
}

TEST_F(FileTest, SeeksStayWithinTheCachedSize) {
    open("0123456789", File::Read);
    EXPECT_TRUE(file.SeekTo(10) && file.IsEOF());
    EXPECT_FALSE(file.SeekTo(11));
    EXPECT_EQ("SeekTo 3 End of file will be reached", lastLog());
    EXPECT_TRUE(file.SeekBehind(10) && !file.IsEOF());
    EXPECT_FALSE(file.SeekBehind(1));
    EXPECT_EQ("SeekBehind 3 End of file will be reached", lastLog());
    EXPECT_TRUE(file.SeekAhead(4));
    EXPECT_FALSE(file.SeekAhead(7) || file.SeekAhead(INT64_MAX) || file.SeekBehind(INT64_MIN));
    EXPECT_FALSE(file.SeekAhead(-1));
    EXPECT_EQ("SeekAhead 3 Invalid count", lastLog());
    EXPECT_EQ(4u, file.Cursor());
    EXPECT_TRUE(file.SeekEnd() && file.Cursor() == 10 && file.SeekBegin() && file.Cursor() == 0);
}

TEST_F(FileTest, ClosedAndBrokenFilesAnswerAsDocumented) {
    const struct {
        std::function<bool()> fails;
        std::string closed, broken;
    } cases[] = {
        {[&] { return file.Size() == 0; }, "4 File not opened", "4 File stats read failure"},
        {[&] { return file.Cursor() == 0; }, "4 File not opened",
         "3 Unable to get the current location"},
        {[&] { return !file.SeekAhead(0); }, "3 File not opened", "3 Unable to seek ahead 0 bytes"},
        {[&] { return !file.SeekTo(0); }, "3 Unable to seek to position 0",
         "3 Unable to seek to position 0"},
        {[&] { return file.IsEOF(); }, "4 File not opened", "3 Unable to seek to the end of file"},
        {[&] { return file.AccessMs() == 0; }, "3 fstat() failed", "3 fstat() failed"},
    };
    for (const auto& each : cases) {
        EXPECT_TRUE(each.fails());
        EXPECT_THAT(lastLog(), testing::HasSubstr(each.closed));
        file.SetFD(100000);
        EXPECT_TRUE(each.fails());
        EXPECT_EQ(EBADF, logLines().back().errnoValue);
        EXPECT_THAT(lastLog(), testing::HasSubstr(each.broken));
        file.Close();
    }
}

TEST_F(FileTest, WritesGrowTheCachedSizeInEveryMode) {
    open("0123456789", File::ReadWrite);
    EXPECT_TRUE(file.WriteUI32(1, true) && file.SeekTo(14));
    EXPECT_EQ(10u, file.Size());
    open("0123456789", File::Append);
    EXPECT_TRUE(file.WriteString("abc"));
    ASSERT_EQ(0, truncate(path.c_str(), 2));
    file.setWriteFunc(nullptr);
    EXPECT_FALSE(file.WriteString("abc"));
    EXPECT_EQ(13u, file.Size());
}

TEST_F(FileTest, PeeksLeaveTheCursor) {
    open("\1\2\3\4\5\6\7\10\11", File::Read);
    unsigned char u8 = 0, block[5] = {};
    unsigned short u16 = 0;
    unsigned int u24 = 0, u32 = 0;
    unsigned long long u64 = 0;
    EXPECT_TRUE(file.SeekTo(1) && file.PeekUI8(&u8) && file.PeekUI16(&u16, true) &&
                file.PeekUI24(&u24, false) && file.PeekUI32(&u32, true) &&
                file.PeekUI64(&u64, false) && file.PeekBuffer(block, 5) && file.Cursor() == 1);
    EXPECT_EQ("2 515 262914 33752069", std::to_string(u8) + " " + std::to_string(u16) + " " +
                                           std::to_string(u24) + " " + std::to_string(u32));
    EXPECT_EQ(0x0908070605040302u, u64);
    EXPECT_EQ(6, block[4]);
    EXPECT_FALSE(file.SeekTo(7) && file.PeekUI32(&u32, true));
    EXPECT_EQ(9u, file.Cursor());
}

TEST_F(FileTest, ReadStringAllTakesExactlyTheSizeAtItsStart) {
    std::string content(3 << 20, 'x');
    content[5] = '\0';
    open(content, File::Read);
    EXPECT_TRUE(file.SeekTo(7) && file.ReadStringAll(text) && content == text && file.IsEOF());
    for (const off_t size : {off_t{4}, off_t{2}}) {
        open("abc", File::Read);
        file.setReadFunc([&](int fd, void* buffer, unsigned int length) {
            EXPECT_EQ(0, truncate(path.c_str(), size));
            return static_cast<int>(::read(fd, buffer, length));
        });
        EXPECT_EQ(size == 4, file.ReadStringAll(text));
        EXPECT_EQ(size == 4 ? "abc" : "", text);
    }
    EXPECT_EQ("ReadStringAll 3 Unable to read data", lastLog());
}

TEST_F(FileTest, ReadStringAllOfWhatIsNoRegularFile) {
    ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
    for (const char* name : {path.c_str(), "/proc/self/stat"}) {
        text = "before";
        EXPECT_TRUE(file.Initialize(name, File::Read, O_NONBLOCK) && file.ReadStringAll(text));
        EXPECT_EQ("", text);
    }
    EXPECT_FALSE(File::ReadStringAll(dir.path(), text));
    EXPECT_EQ("ReadStringAll 3 Unable to read data", lastLog());
}

TEST_F(FileTest, SizesBeyondFourGigabytes) {
    open("", File::ReadWrite);
    ASSERT_EQ(0, ftruncate(file.GetFD(), 5 * kGiB));
    EXPECT_EQ(5 * kGiB, file.Size());
    EXPECT_TRUE(file.SeekTo(5 * kGiB - 1) && file.WriteUI8(7) && file.SeekBehind(5 * kGiB));
    EXPECT_FALSE(file.ReadStringAll(text));
    EXPECT_EQ("ReadStringAll 3 ReadAll can only be done on files smaller than 2^32 bytes (4GB)",
              lastLog());
}

TEST_F(FileTest, StampsAreMilliseconds) {
    open("x", File::Read);
    const timespec stamps[] = {{2000000000, 1999999}, {7, 999999999}};
    ASSERT_EQ(0, futimens(file.GetFD(), stamps));
    EXPECT_EQ(2000000000001u, file.AccessMs());
    EXPECT_EQ(7999u, file.ModificationMs());
}

}  // namespace
