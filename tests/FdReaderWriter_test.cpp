#include <kest/utils/FdReaderWriter.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>

#include "support/clean_test.h"
#include "support/log_capture.h"

namespace {

using kest::test::logTexts;
using kest::utils::FdReaderWriter;
using testing::_;
using testing::ElementsAre;
using testing::Return;

// A device in memory that moves one byte per call and is interrupted before each.
class FdReaderWriterTest : public kest::test::CleanTest {
  protected:
    FdReaderWriterTest() {
        device.setReadFunc([this](int, void* buffer, unsigned int) {
            if (interrupts()) return -1;
            if (content.empty()) return 0;
            memcpy(buffer, content.data(), 1);
            content.erase(0, 1);
            return 1;
        });
        device.setWriteFunc([this](int, void const* buffer, unsigned int) {
            if (interrupts()) return -1;
            content.append(static_cast<char const*>(buffer), 1);
            return 1;
        });
    }
    bool interrupts() {
        errno = ++calls % 3 == 0 ? EINTR : EAGAIN;
        return calls % 3 != 1;
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
                device.WriteI64(0x0102030405060708, false) && device.WriteString({'a', '\0'}));
    EXPECT_EQ(std::string("\xfe\x12\x34\x34\x12\x12\x34\x56\x56\x34\x12\xff\xff\xff\xfe"
                          "\x98\xba\xdc\xfe\x34\x56\x78\x12\1\2\3\4\5\6\7\10\10\7\6\5\4\3\2\1a\0",
                          41),
              content);
    EXPECT_THAT(logTexts(), ElementsAre());
}

TEST_F(FdReaderWriterTest, ReadsHonourOrderAndSign) {
    content = "\xff\xff\xff\xff\xff\xff\x80\1\x80\1\x81\2\3\4\1\2\3\4\5\6\7\x88";
    int i24 = 0, big24 = 0, i32 = 0;
    short big16 = 0;
    unsigned short u16 = 0;
    unsigned long long u64 = 0;
    EXPECT_TRUE(device.ReadI24(&i24, false) && device.ReadI24(&big24, true) &&
                device.ReadI16(&big16, true) && device.ReadUI16(&u16, false) &&
                device.ReadI32(&i32, true) && device.ReadUI64(&u64, false));
    EXPECT_EQ(-1, i24);
    EXPECT_EQ(16777215, big24);
    EXPECT_EQ(-0x7fff, big16);
    EXPECT_EQ(0x0180, u16);
    EXPECT_EQ(-0x7efdfcfc, i32);
    EXPECT_EQ(0x8807060504030201u, u64);
}

TEST_F(FdReaderWriterTest, UnsignedOperationsCallTheSignedOnes) {
    struct Overridden : FdReaderWriter {
        MOCK_METHOD(bool, ReadI16, (short*, bool), (override));
        MOCK_METHOD(bool, WriteI64, (long long, bool), (override));
    } mock;
    unsigned short u16 = 0;
    EXPECT_CALL(mock, ReadI16(_, true)).WillOnce(Return(true));
    EXPECT_CALL(mock, WriteI64(-1, false)).WillOnce(Return(true));
    EXPECT_TRUE(mock.ReadUI16(&u16, true) && mock.WriteUI64(~0ULL, false));
}

TEST_F(FdReaderWriterTest, EndOfInputKeepsWhatArrived) {
    content = "\1\2";
    EXPECT_FALSE(device.ReadBuffer(target, sizeof(target)));
    EXPECT_THAT(target, ElementsAre(1, 2, 9, 9));
    EXPECT_THAT(logTexts(), ElementsAre("Unable to read 4 bytes. EOF"));
}

TEST_F(FdReaderWriterTest, FailingLyingAndMissingHooksEndTheTransfer) {
    const struct {
        int answer, errnoValue, lastError;
    } cases[] = {{-1, ENOSPC, ENOSPC}, {-7, EAGAIN, EIO}, {3, 0, EIO}, {0, 0, EIO}};
    for (const auto& each : cases) {
        device.setWriteFunc([&each](int, void const*, unsigned int) {
            errno = each.errnoValue;
            return each.answer;
        });
        EXPECT_FALSE(device.WriteBuffer(target, 2));
        EXPECT_EQ(each.lastError, device.lastError());
    }
    device.setReadFunc(nullptr);
    EXPECT_FALSE(device.ReadBuffer(target, 2));
    const std::string write = "Unable to write 2 bytes to file";
    EXPECT_THAT(logTexts(),
                ElementsAre(write, write, write, write,
                            "Unable to read 2 bytes. (38) " + std::string(strerror(ENOSYS))));
}

TEST_F(FdReaderWriterTest, RefusesFourGigabytesAndMissingDescriptors) {
    EXPECT_FALSE(device.ReadBuffer(target, 1ULL << 32));
    EXPECT_FALSE(device.WriteBuffer(target, 1ULL << 32));
    device.SetFD(-1);
    EXPECT_FALSE(device.ReadBuffer(target, 0) || device.WriteBuffer(target, 1) || device.Flush());
    EXPECT_EQ(0, calls);
    EXPECT_THAT(logTexts(),
                ElementsAre("Can't read more than 4GB of data at once",
                            "Can't write more than 4GB of data at once", "Invalid descriptor",
                            "Invalid descriptor", "Invalid descriptor"));
}

}  // namespace
