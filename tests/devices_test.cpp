#include <fcntl.h>
#include <kest/utils/IavState.h>
#include <kest/utils/mdio.h>
#include <kest/utils/rtc.h>
#include <kest/utils/string_utils.h>
#include <linux/mii.h>
#include <sys/ioctl.h>

#include <climits>
#include <cstdarg>

#include "support/clean_test.h"

namespace {

using namespace kest::utils;
using DevicesTest = kest::test::CleanTest;

// Stands for whatever the library opens, and notes down what it is asked for.
struct Device {
    int failing = 0;  // which of the calls fails, from 1
    int descriptor = 77;
    int moved = 1;  // bytes that a transfer moves
    int value = 0;  // byte or state that it gives
    int count = 0;
    std::string calls = {};

    int answer(const std::string& call, int result) {
        calls += call + ";";
        errno = EREMOTEIO;
        return ++count == failing ? -1 : result;
    }
} device;

// Fills the outputs also when it fails: nobody must look at them then.
int answerMii(unsigned long request, ifreq& ask) {
    mii_ioctl_data mii;
    memcpy(&mii, &ask.ifr_ifru, sizeof(mii));
    const std::string call = format("ioctl %lx %.16s %x %x %x", request, ask.ifr_name, mii.phy_id,
                                    mii.reg_num, mii.val_in);
    if (request == 0x8947) mii.phy_id = 5;
    mii.val_out = 0xABCD;
    memcpy(&ask.ifr_ifru, &mii, sizeof(mii));
    return device.answer(call, 0);
}

// The log since the last look: source, function, level, errno, text.
std::string logged() {
    std::string all;
    for (const auto& line : kest::test::logLines())
        all += line.sourceFile +
               format(" %s %d %d ", line.function.c_str(), line.level, line.errnoValue) + line.text;
    kest::test::clearLog();
    return all;
}

}  // namespace

extern "C" int open64(const char* path, int flags, ...) {
    return device.answer(format("%s %d", path, flags - O_CLOEXEC), device.descriptor);
}
extern "C" int socket(int domain, int type, int protocol) noexcept {
    return device.answer(format("socket %d %d %d", domain, type - SOCK_CLOEXEC, protocol),
                         device.descriptor);
}
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list list;
    va_start(list, request);
    void* const argument = va_arg(list, void*);
    va_end(list);
    if (fd != device.descriptor) return errno = EBADF, -1;
    if (request >> 8 == 0x89) return answerMii(request, *static_cast<ifreq*>(argument));
    if (request == 0x706) return device.answer(format("ioctl 706 %p", argument), 0);
    *static_cast<int*>(argument) = device.value;
    return device.answer(format("ioctl %lx", request), 0);
}
extern "C" ssize_t read(int fd, void* buffer, size_t size) {
    memset(buffer, device.value, 1);
    return device.answer(format("read %d %zu", fd, size), device.moved);
}
extern "C" ssize_t write(int fd, const void* buffer, size_t size) {
    const char byte = *static_cast<const char*>(buffer);
    return device.answer(format("write %d %zu %x", fd, size, byte), device.moved);
}
extern "C" int close(int fd) {
    return device.calls += format("close %d;", fd), 0;
}

TEST_F(DevicesTest, RtcMovesOneByteAndLogsTheStepThatFails) {
    const std::string begin = "/dev/i2c-2 2;ioctl 706 0x31;", end = "close 77;";
    for (const int byte : {0x04, 0x08, 0xF3}) {
        bool enabled = byte == 0xF3;
        device = {0, 77, 1, byte};
        EXPECT_TRUE(S35390_GetME(enabled) && enabled == (byte != 0xF3) && S35390_SetME(enabled));
        EXPECT_EQ(
            begin + "read 77 1;" + end + begin + "write 77 1 " + (enabled ? "c;" : "0;") + end,
            device.calls);
    }
    const char* lines[] = {
        "0 Failed to open device /dev/i2c-2", "121 Failed to set i2c slave to REG_STATUS2",
        "121 Failed to read 1 byte from rtc", "0 Failed to read 1 byte from rtc"};
    // In the last two rounds, the third step moves nothing.
    for (int round = 2; round < 10; ++round) {
        const int step = round / 2;
        const bool set = round % 2 != 0;
        bool enabled = true;
        device = {step, 77, step == 4 ? 0 : 1};
        EXPECT_TRUE(!(set ? S35390_SetME(true) : S35390_GetME(enabled)) && enabled);
        EXPECT_TRUE(device.count == std::min(step, 3) && endsWith(device.calls, end) == (step > 1));
        std::string line = std::string("rtc S35390_GetME 3 ") + lines[step - 1];
        if (set) replaceAll(line, "Get", "Set");
        if (set) replaceAll(line, "read 1 byte from", "write 1 byte to");
        EXPECT_EQ(line, logged());
    }
}

TEST_F(DevicesTest, MdioAsksThePhyThatInitFoundForNamesOfAnyLength) {
    static_assert(!std::is_copy_constructible_v<mdio> && !std::is_copy_assignable_v<mdio>);
    for (const unsigned length : {4U, 15U, 16U, 17U, 200U}) {
        const std::string name(length, 'n'), held = name.substr(0, 16);
        unsigned short value = 1;
        device = {1};
        {
            mdio phy, untouched;
            EXPECT_FALSE(phy.read(2, value) || phy.write(2, value) || phy.init(name));
            EXPECT_EQ("mdio init 3 121 socket create failed", logged());
            device.failing = 3;
            EXPECT_FALSE(phy.init(name) || phy.read(1, value));
            EXPECT_EQ("mdio init 3 121 SIOCGMIIPHY " + name + " failed", logged());
            device.failing = 6;
            EXPECT_TRUE(phy.init(name) && phy.init("eth1") && !phy.read(1, value) && value == 1);
            EXPECT_EQ("mdio read 3 121 SIOCGMIIREG read " + held + " failed", logged());
            device.failing = 7;
            EXPECT_FALSE(phy.write(1, 2));
            EXPECT_EQ("mdio write 3 121 SIOCSMIIREG write " + held + " failed", logged());
            EXPECT_TRUE(phy.read(0xFFFF, value) && value == 0xABCD && phy.write(0x1F, 0x8000));
        }
        std::string calls =
            "socket 2 2 0;socket 2 2 0;ioctl 8947 # 0 0 0;close 77;socket 2 2 0;ioctl 8947 # 0 0 0;"
            "ioctl 8948 # 5 1 0;ioctl 8949 # 5 1 2;ioctl 8948 # 5 ffff 0;ioctl 8949 # 5 1f 8000;"
            "close 77;";
        replaceAll(calls, "#", held);
        EXPECT_EQ(calls, device.calls);
    }
}

TEST_F(DevicesTest, IavStateIsInTheMaskOrNot) {
    for (const int state : {INT_MIN, -1, 0, 1, 2, 3, 31, 32, 34, INT_MAX}) {
        device = {0, 77, 1, state};
        const int bit = state == 0 ? 1 : state == 1 ? 2 : state == 2 ? 4 : 0;
        for (const int mask : {0, 1, 2, 3, 4, 5, 6, 7, 8, -8, -1})
            EXPECT_EQ((mask & bit) != 0, IavState::isState(77, mask)) << state;
    }
    device = {1};
    EXPECT_TRUE(!IavState::isState(77, 0) && device.calls == "ioctl 80047652;");
    EXPECT_EQ("IavState isState 3 121 Failed to read IAV_IOC_GET_STATE", logged());
}

TEST_F(DevicesTest, IavStateOwnsOneDescriptorAndNeverZero) {
    const std::string failure = "IavState init 3 0 Failed to access IAV device";
    device = {4};
    {
        IavState iav;
        bool flip = true, mirror = false;
        EXPECT_TRUE(iav.orientation(flip, mirror) && flip && !mirror);
        EXPECT_TRUE(iav.init() && iav.init() && iav.isState(1) && !iav.init());
        EXPECT_EQ(failure, logged());
        device.descriptor = 0;
        EXPECT_TRUE(!iav.init() && logged() == failure && !iav.isState(7));
        EXPECT_EQ("IavState isState 3 9 Failed to read IAV_IOC_GET_STATE", logged());
        device.descriptor = 78;
        EXPECT_TRUE(iav.init());
    }
    EXPECT_EQ(
        "/dev/iav 2;/dev/iav 2;close 77;ioctl 80047652;/dev/iav 2;close 77;/dev/iav 2;"
        "close 0;/dev/iav 2;close 78;",
        device.calls);
    static_assert(!std::is_copy_constructible_v<IavState>);
}
