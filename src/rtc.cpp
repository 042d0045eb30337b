#include <kest/utils/rtc.h>

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

#include "log.h"
#include "unique_fd.h"

namespace kest::utils {
namespace {

constexpr char kBus[] = "/dev/i2c-2";
// The clock takes the number of a register as part of its bus address: device code 0110, status
// register 2.
constexpr unsigned long kStatus2 = 0x31;
constexpr unsigned char kMe = 0x0C;

detail::UniqueFd openStatus2(const char* caller) {
    detail::UniqueFd fd(open(kBus, O_RDWR | O_CLOEXEC));
    if (!fd.valid()) {
        KEST_LOG_AS(caller, KEST_ERROR, 0, "Failed to open device %s", kBus);
        return fd;
    }
    // By force: the kernel's own driver of the clock may have the address.
    if (ioctl(fd.get(), I2C_SLAVE_FORCE, kStatus2) < 0) {
        KEST_LOG_AS(caller, KEST_ERROR, errno, "Failed to set i2c slave to REG_STATUS2");
        fd.reset();
    }
    return fd;
}

}  // namespace

bool S35390_GetME(bool& enabled) {
    const detail::UniqueFd fd = openStatus2(__func__);
    if (!fd.valid()) return false;
    unsigned char status = 0;
    const ssize_t got = read(fd.get(), &status, 1);
    if (got < 1) {
        KEST_LOG(KEST_ERROR, got < 0 ? errno : 0, "Failed to read 1 byte from rtc");
        return false;
    }
    enabled = (status & kMe) != 0;
    return true;
}

bool S35390_SetME(bool enable) {
    const detail::UniqueFd fd = openStatus2(__func__);
    if (!fd.valid()) return false;
    const unsigned char status = enable ? kMe : 0;
    const ssize_t written = write(fd.get(), &status, 1);
    if (written < 1) {
        KEST_LOG(KEST_ERROR, written < 0 ? errno : 0, "Failed to write 1 byte to rtc");
        return false;
    }
    return true;
}

}  // namespace kest::utils
