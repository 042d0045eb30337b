#include <kest/utils/IavState.h>

#include <fcntl.h>
#include <linux/ioctl.h>
#include <sys/ioctl.h>

#include <cerrno>

#include "log.h"
#include "unique_fd.h"

namespace {

using kest::utils::detail::UniqueFd;

// The driver's own header comes with its kernel only.
constexpr unsigned long kGetState = _IOR('v', 0x52, int);
static_assert(kGetState == 0x80047652);

}  // namespace

IavState::IavState() = default;

IavState::~IavState() {
    const UniqueFd fd(fd_);
}

bool IavState::init() {
    UniqueFd opened(open("/dev/iav", O_RDWR | O_CLOEXEC));
    UniqueFd(fd_).reset();
    const bool usable = opened.get() > 0;
    fd_ = usable ? opened.release() : -1;
    if (!usable) KEST_LOG(KEST_ERROR, 0, "Failed to access IAV device");
    return usable;
}

bool IavState::isState(int fd, int mask) {
    int state = -1;
    if (ioctl(fd, kGetState, &state) < 0) {
        KEST_LOG(KEST_ERROR, errno, "Failed to read IAV_IOC_GET_STATE");
        return false;
    }
    // Not by shifting: the driver may say any number.
    switch (state) {
        case 0:
            return (mask & State0) != 0;
        case 1:
            return (mask & State1) != 0;
        case 2:
            return (mask & State2) != 0;
        default:
            return false;
    }
}

bool IavState::isState(int mask) const {
    return isState(fd_, mask);
}

bool IavState::orientation(int /*fd*/, bool& /*flip*/, bool& /*mirror*/) {
    return true;
}

bool IavState::orientation(bool& flip, bool& mirror) const {
    return orientation(fd_, flip, mirror);
}
