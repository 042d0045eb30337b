#include <kest/utils/file.h>

#include <fcntl.h>
#include <unistd.h>

#include "support/allocations.h"
#include "support/clean_test.h"
#include "support/temp_dir.h"

namespace {

using kest::test::allocationLimit, kest::utils::File;

class FileTest : public kest::test::CleanTest {
  protected:
    void TearDown() override {
        file.Close();
        CleanTest::TearDown();
    }
    void open(const std::string& content, int mode) {
        kest::test::writeFile(path, content);
        ASSERT_TRUE(file.Initialize(path, mode));
    }
    static std::string lastLog() {
        const auto line = kest::test::logLines().back();
        return line.function + " " + std::to_string(line.level) + " " + line.text;
    }

    kest::test::TempDir dir;
    const std::string path = dir / "file";
    File file;
    std::string text = "before";
};

TEST_F(FileTest, ModesOpenAsDocumented) {
    const std::string contents[] = {"old", "new", "new", "oldnew"};
    for (int mode = File::Read; mode <= File::Append; ++mode) {
        EXPECT_EQ(mode >= File::Truncate, file.Initialize(dir / std::to_string(mode), mode));
        open("old", mode);
        EXPECT_EQ(FD_CLOEXEC, fcntl(file.GetFD(), F_GETFD));
        EXPECT_EQ(mode != File::Read, file.WriteString("new"));
        EXPECT_EQ(contents[mode], kest::test::readFile(path)) << mode;
    }
    EXPECT_FALSE(file.Initialize(path + '\0', File::Read) || file.Initialize(path, 4));
    EXPECT_EQ("Initialize 3 Invalid open mode", lastLog());
    EXPECT_FALSE(file.Initialize("/", File::Append, O_EXCL));
    EXPECT_EQ("Initialize 3 Unable to open file / with mode `4c2`", lastLog());
    EXPECT_EQ("file: /, file descriptor: -1", file.info());
}

TEST_F(FileTest, SeeksStayWithinTheCachedSize) {
    open("0123456789", File::Read);
    EXPECT_TRUE(file.SeekTo(10) && file.IsEOF() && file.SeekBehind(10) && !file.IsEOF());
    EXPECT_FALSE(file.SeekBehind(INT64_MIN) || file.SeekBehind(1) || file.SeekTo(11));
    EXPECT_EQ("SeekTo 3 End of file will be reached", lastLog());
    EXPECT_TRUE(file.SeekAhead(10) && !file.SeekAhead(INT64_MAX) && !file.SeekAhead(1));
    EXPECT_TRUE(file.Cursor() == 10 && file.SeekBegin() && file.SeekEnd() && file.Cursor() == 10);
}

TEST_F(FileTest, ClosedAndBrokenFilesAnswerAsDocumented) {
    EXPECT_TRUE(file.Cursor() == 0 && !file.SeekEnd() && file.IsEOF() && file.Size() == 0);
    EXPECT_EQ("Size 4 File not opened", lastLog());
    file.SetFD(100000);
    EXPECT_TRUE(file.AccessMs() == 0 && file.IsEOF() && file.Size() == 0 && file.Cursor() == 0);
    EXPECT_EQ("Cursor 3 Unable to get the current location", lastLog());
}

TEST_F(FileTest, WritesGrowTheCachedSizeInEveryMode) {
    open("0123456789", File::ReadWrite);
    EXPECT_TRUE(file.WriteUI32(1, true) && file.SeekTo(14) && file.Size() == 10);
    open("0123456789", File::Append);
    EXPECT_TRUE(file.WriteString("abc") && truncate(path.c_str(), 2) == 0);
    file.setWriteFunc(nullptr);
    EXPECT_TRUE(!file.WriteString("abc") && file.Size() == 13);
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
    EXPECT_TRUE(u8 == 2 && u16 == 0x203 && u24 == 0x40302 && u32 == 0x2030405 && block[4] == 6 &&
                u64 == 0x0908070605040302);
    EXPECT_TRUE(file.SeekTo(7) && !file.PeekUI32(&u32, true) && file.Cursor() == 9);
}

TEST_F(FileTest, ReadStringAllTakesExactlyTheSizeAtItsStart) {
    std::string content(5 << 20, 'x');
    content[5] = '\0';
    open(content, File::Read);
    EXPECT_TRUE(file.SeekTo(7) && file.ReadStringAll(text) && content == text && file.IsEOF());
    auto newSize = static_cast<off_t>(content.size() + 1);
    file.setReadFunc([&](int fd, void* buffer, unsigned int length) {
        EXPECT_EQ(0, truncate(path.c_str(), newSize));
        return static_cast<int>(::read(fd, buffer, length));
    });
    text += "longer";
    EXPECT_TRUE(file.ReadStringAll(text) && content == text);
    newSize = 3;
    EXPECT_TRUE(!file.ReadStringAll(text) && text.empty());
    // Neither a size of 0 nor a directory can be read whole.
    EXPECT_TRUE(File::ReadStringAll("/proc/version", text) && text.empty());
    EXPECT_FALSE(File::ReadStringAll(dir.path(), text));
}

TEST_F(FileTest, SizesHaveSixtyFourBits) {
    const long long size = 5LL << 30;
    open("", File::ReadWrite);
    EXPECT_TRUE(ftruncate(file.GetFD(), size) == 0 && file.Size() == size && file.SeekTo(size - 1));
    EXPECT_TRUE(file.WriteUI8(7) && file.SeekBehind(size) && !file.ReadStringAll(text));
}

// Memcheck puts its own operator new in the place of ours.
TEST_F(FileTest, MemoryShortageFailsTheReadNotUnderValgrind) {
    open("", File::ReadWrite);
    EXPECT_EQ(0, ftruncate(file.GetFD(), (4LL << 30) - 2));
    allocationLimit = 1 << 30;
    EXPECT_FALSE(file.ReadStringAll(text));
    allocationLimit = SIZE_MAX;
    EXPECT_EQ("ReadStringAll 3 Unable to read data", lastLog());
}

TEST_F(FileTest, StampsAreMilliseconds) {
    open("x", File::Read);
    const timespec stamps[] = {{2000000000, 1999999}, {7, 999999999}};
    EXPECT_EQ(0, futimens(file.GetFD(), stamps));
    EXPECT_TRUE(file.AccessMs() == 2000000000001 && file.ModificationMs() == 7999);
}

}  // namespace
