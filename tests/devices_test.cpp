#include <fcntl.h>
#include <kest/utils/IavState.h>
#include <kest/utils/mdio.h>
#include <kest/utils/rtc.h>
#include <kest/utils/string_utils.h>
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

// What the action asks of the device, and then its log: source, function, level, errno, text.
template <typename Action>
std::string transcript(const Device& setting, Action action) {
    device = setting;
    action();
    for (const auto& line : kest::test::logLines())
        device.calls += format("%s %s %d %d %s", line.sourceFile.c_str(), line.function.c_str(),
                               line.level, line.errnoValue, line.text.c_str());
    kest::test::clearLog();
    return device.calls;
}

}  // namespace

extern "C" int open64(const char* path, int flags, ...) {
    return device.answer(format("%s %d", path, flags - O_CLOEXEC), device.descriptor);
}
extern "C" int socket(int domain, int type, int protocol) noexcept {
    return device.answer(format("socket %d %d %d", domain, type - SOCK_CLOEXEC, protocol),
                         device.descriptor);
}
// Fills the outputs also when it fails: nobody must look at them then.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list list;
    va_start(list, request);
    void* const argument = va_arg(list, void*);
    va_end(list);
    std::string call = format("ioctl %lx", request);
    if (fd != device.descriptor) return errno = EBADF, -1;
    if (request >> 8 == 0x89) {
        auto& ask = *static_cast<ifreq*>(argument);
        auto* words = reinterpret_cast<unsigned short*>(&ask.ifr_ifru);  // PHY, register, in, out
        call += format(" %.16s %x %x %x", ask.ifr_name, words[0], words[1], words[2]);
        if (request == 0x8947) words[0] = 5;
        words[3] = 0xABCD;
    } else if (request == 0x706) {
        call += format(" %p", argument);
    } else {
        *static_cast<int*>(argument) = device.value;
    }
    return device.answer(call, 0);
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
    const std::string bus = "/dev/i2c-2 2;", bound = bus + "ioctl 706 0x31;", end = "close 77;";
    for (const int byte : {0x04, 0x08, 0xF3}) {
        const bool set = byte != 0xF3;
        bool enabled = !set;
        EXPECT_EQ(bound + "read 77 1;" + end + bound + "write 77 1 " + (set ? "c;" : "0;") + end,
                  transcript({0, 77, 1, byte},
                             [&] { EXPECT_TRUE(S35390_GetME(enabled) && S35390_SetME(enabled)); }));
    }
    for (const bool get : {true, false}) {
        const std::string log = get ? "rtc S35390_GetME 3 " : "rtc S35390_SetME 3 ";
        const std::string moved = bound + (get ? "read 77 1;" : "write 77 1 c;") + end + log;
        const char* what = get ? "Failed to read 1 byte from rtc" : "Failed to write 1 byte to rtc";
        const std::string steps[] = {
            bus + log + "0 Failed to open device /dev/i2c-2",
            bound + end + log + "121 Failed to set i2c slave to REG_STATUS2", moved + "121 " + what,
            moved + "0 " + what};  // the third step moves nothing
        bool enabled = true;
        for (const int step : {1, 2, 3, 4})
            EXPECT_EQ(steps[step - 1], transcript({step, 77, step == 4 ? 0 : 1}, [&] {
                          EXPECT_FALSE(get ? S35390_GetME(enabled) : S35390_SetME(true));
                      }));
        EXPECT_TRUE(enabled);
    }
}

// Names of any length; in the fifth round nothing fails.
TEST_F(DevicesTest, MdioAsksThePhyThatInitFoundAndLogsTheStepThatFails) {
    const std::string end = "close 77;", again = "socket 2 2 0;ioctl 8947 eth0 0 0 0;" + end;
    for (const unsigned length : {15U, 16U, 17U, 200U}) {
        const std::string name(length, 'n'), held = name.substr(0, 16);
        const std::string found = "socket 2 2 0;ioctl 8947 " + held + " 0 0 0;";
        const std::string asked = found + "ioctl 8948 " + held + " 5 ffff 0;";
        const std::string told = asked + "ioctl 8949 " + held + " 5 1f 8000;" + end;
        const std::string steps[] = {
            "socket 2 2 0;" + again + "mdio init 3 121 socket create failed",
            found + end + again + "mdio init 3 121 SIOCGMIIPHY " + name + " failed",
            asked + end + "mdio read 3 121 SIOCGMIIREG read " + held + " failed",
            told + "mdio write 3 121 SIOCSMIIREG write " + held + " failed", told};
        for (const int step : {1, 2, 3, 4, 5})
            EXPECT_EQ(steps[step - 1], transcript({step}, [&] {
                          mdio phy;
                          unsigned short value = 1;
                          EXPECT_FALSE(phy.read(2, value) || phy.write(2, value));
                          EXPECT_EQ(step == 5, phy.init(name) && phy.read(0xFFFF, value) &&
                                                   phy.write(0x1F, 0x8000));
                          EXPECT_TRUE(value == (step < 4 ? 1 : 0xABCD) && phy.init("eth0"));
                      }));
    }
    static_assert(!std::is_copy_constructible_v<mdio> && !std::is_copy_assignable_v<mdio>);
}

TEST_F(DevicesTest, IavStateIsInTheMaskOrNot) {
    for (const int state : {INT_MIN, -1, 0, 1, 2, 3, 31, 32, 34, INT_MAX}) {
        device = {0, 77, 1, state};
        const int bit = state == 0 ? 1 : state == 1 ? 2 : state == 2 ? 4 : 0;
        for (const int mask : {0, 1, 2, 3, 4, 5, 6, 7, 8, -8, -1})
            EXPECT_EQ((mask & bit) != 0, IavState::isState(77, mask)) << state;
    }
    EXPECT_EQ("ioctl 80047652;IavState isState 3 121 Failed to read IAV_IOC_GET_STATE",
              transcript({1}, [] { EXPECT_FALSE(IavState::isState(77, 0)); }));
}

TEST_F(DevicesTest, IavStateOwnsOneDescriptorAndNeverZero) {
    const std::string failure = "IavState init 3 0 Failed to access IAV device";
    EXPECT_EQ(
        "/dev/iav 2;/dev/iav 2;close 77;ioctl 80047652;/dev/iav 2;close 77;/dev/iav 2;close 0;"
        "/dev/iav 2;close 78;" +
            failure + failure + "IavState isState 3 9 Failed to read IAV_IOC_GET_STATE",
        transcript({4}, [] {
            IavState iav;
            bool flip = true, mirror = false;
            EXPECT_TRUE(iav.orientation(flip, mirror) && flip && !mirror);
            EXPECT_TRUE(iav.init() && iav.init() && iav.isState(1) && !iav.init());
            device.descriptor = 0;
            EXPECT_FALSE(iav.init() || iav.isState(7));
            device.descriptor = 78;
            EXPECT_TRUE(iav.init());
        }));
    static_assert(!std::is_copy_constructible_v<IavState>);
}
