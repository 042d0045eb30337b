#include <kest/utils/FdReaderWriter.h>

#include <cerrno>

#include "support/clean_test.h"

namespace {

using kest::test::logTexts;
using kest::utils::FdReaderWriter;

// A device in memory that moves one byte per call and fails for a moment before each.
class FdReaderWriterTest : public kest::test::CleanTest {
  protected:
    FdReaderWriterTest() {
        device.setReadFunc([this](int, void* buffer, unsigned int) {
            errno = EINTR;
            if (++calls % 2 == 1) return -1;
            const size_t moved = content.copy(static_cast<char*>(buffer), 1);
            content.erase(0, moved);
            return static_cast<int>(moved);
        });
        device.setWriteFunc([this](int, void const* buffer, unsigned int) {
            errno = EAGAIN;
            return ++calls % 2 == 1 ? -1 : (content += *static_cast<char const*>(buffer), 1);
        });
    }

    FdReaderWriter device{7};
    std::string content;
    int calls = 0;
    unsigned char target[4] = {9, 9, 9, 9};
};

TEST_F(FdReaderWriterTest, EveryTypeIsWrittenInItsLayout) {
    EXPECT_TRUE(device.WriteUI8(0xfe) && device.WriteI16(0x1234, true) &&
                device.WriteUI16(0x1234, false) && device.WriteI24(0x7f123456, true) &&
                device.WriteUI24(0xff123456, false) && device.WriteI32(-2, true) &&
                device.WriteUI32(0xfedcba98, false) && device.WriteSI32(0x12345678) &&
                device.WriteUI64(0x0102030405060708, true) &&
                device.WriteI64(0x0102030405060708, false) && device.WriteString("no end"));
    EXPECT_EQ(
        "\xfe\x12\x34\x34\x12\x12\x34\x56\x56\x34\x12\xff\xff\xff\xfe\x98\xba\xdc\xfe"
        "\x34\x56\x78\x12\1\2\3\4\5\6\7\10\10\7\6\5\4\3\2\1no end",
        content);
}

TEST_F(FdReaderWriterTest, ReadsHonourOrderSignAndEndOfInput) {
    content = "\xff\xff\xff\xff\xff\xff\x80\1\x80\1\x81\2\3\4\1\2\3\4\5\6\7\x88";
    int i24 = 0, big24 = 0, i32 = 0;
    short i16 = 0;
    unsigned short u16 = 0;
    unsigned long long u64 = 0;
    EXPECT_TRUE(device.ReadI24(&i24, false) && device.ReadI24(&big24, true) &&
                device.ReadI16(&i16, true) && device.ReadUI16(&u16, false) &&
                device.ReadI32(&i32, true) && device.ReadUI64(&u64, false));
    EXPECT_TRUE(i24 == -1 && big24 == 16777215 && i16 == -0x7fff && u16 == 0x0180);
    EXPECT_TRUE(i32 == -0x7efdfcfc && u64 == 0x8807060504030201);
    content = "\1\2";
    EXPECT_FALSE(device.ReadBuffer(target, sizeof(target)));
    EXPECT_TRUE(target[0] == 1 && target[1] == 2 && target[2] == 9);
    EXPECT_EQ("Unable to read 4 bytes. EOF", logTexts().at(0));
}

TEST_F(FdReaderWriterTest, UnsignedOperationsCallTheSignedOnes) {
    struct Overridden : FdReaderWriter {
        bool ReadI16(short* value, bool bigEndian) override { return ++*value != 0 && bigEndian; }
        bool WriteI64(long long value, bool bigEndian) override { return value < 0 && !bigEndian; }
    } overridden;
    unsigned short value = 6;
    EXPECT_TRUE(overridden.ReadUI16(&value, true) && overridden.WriteUI64(~0ULL, false));
    EXPECT_EQ(7, value);
}

TEST_F(FdReaderWriterTest, FailingLyingAndMissingHooksEndTheTransfer) {
    const int cases[][3] = {{-1, ENOSPC, ENOSPC}, {-7, EAGAIN, EIO}, {3, 0, EIO}, {0, 0, EIO}};
    for (const auto& each : cases) {
        device.setWriteFunc([&](int, void const*, unsigned) { return errno = each[1], each[0]; });
        EXPECT_FALSE(device.WriteBuffer(target, 2));
        EXPECT_EQ(each[2], device.lastError());
    }
    device.setReadFunc(nullptr);
    EXPECT_FALSE(device.ReadBuffer(target, 2));
    EXPECT_EQ("Unable to write 2 bytes to file", logTexts().at(3));
    EXPECT_EQ("Unable to read 2 bytes. (38) Function not implemented", logTexts().at(4));
}

TEST_F(FdReaderWriterTest, RefusesFourGigabytesAndMissingDescriptors) {
    EXPECT_FALSE(device.ReadBuffer(target, 1ULL << 32) || device.WriteBuffer(target, 1ULL << 32));
    device.SetFD(-1);
    EXPECT_FALSE(device.ReadBuffer(target, 0) || device.WriteBuffer(target, 1) || device.Flush());
    EXPECT_EQ(0, calls);
    EXPECT_EQ("Can't read more than 4GB of data at once", logTexts().at(0));
    EXPECT_EQ("Invalid descriptor", logTexts().at(4));
}

}  // namespace
