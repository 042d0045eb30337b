#include <kest/utils/mdio.h>

#include <linux/mii.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "log.h"
#include "unique_fd.h"

namespace kest::utils {
namespace {

static_assert(sizeof(mii_ioctl_data) <= sizeof(ifreq::ifr_ifru));

// The kernel sees the words in the request's data area.
mii_ioctl_data words(const ifreq& request) {
    mii_ioctl_data mii = {};
    memcpy(&mii, &request.ifr_ifru, sizeof(mii));
    return mii;
}

void setWords(ifreq& request, const mii_ioctl_data& mii) {
    memcpy(&request.ifr_ifru, &mii, sizeof(mii));
}

ifreq requestFor(const std::string& interfaceName) {
    ifreq request = {};
    const size_t length = strlen(interfaceName.c_str());
    memcpy(request.ifr_name, interfaceName.c_str(), std::min(length, sizeof(request.ifr_name)));
    return request;
}

// A name that fills its field has no NUL behind it.
std::string nameIn(const ifreq& request) {
    return {request.ifr_name, strnlen(request.ifr_name, sizeof(request.ifr_name))};
}

}  // namespace

mdio::mdio() = default;

mdio::~mdio() {
    const detail::UniqueFd fd(socket_);
}

bool mdio::init(const std::string& interfaceName) {
    if (initialised_) return true;
    detail::UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        KEST_LOG(KEST_ERROR, errno, "socket create failed");
        return false;
    }
    ifreq request = requestFor(interfaceName);
    if (ioctl(fd.get(), SIOCGMIIPHY, &request) < 0) {
        KEST_LOG(KEST_ERROR, errno, "SIOCGMIIPHY %s failed", interfaceName.c_str());
        return false;
    }
    request_ = request;
    socket_ = fd.release();
    initialised_ = true;
    return true;
}

bool mdio::read(unsigned short reg, unsigned short& value) const {
    if (!initialised_) return false;
    // A copy each time: readers do not disturb one another.
    ifreq request = request_;
    mii_ioctl_data mii = words(request);
    mii.reg_num = reg;
    setWords(request, mii);
    if (ioctl(socket_, SIOCGMIIREG, &request) < 0) {
        KEST_LOG(KEST_ERROR, errno, "SIOCGMIIREG read %s failed", nameIn(request_).c_str());
        return false;
    }
    value = words(request).val_out;
    return true;
}

bool mdio::write(unsigned short reg, unsigned short value) {
    if (!initialised_) return false;
    ifreq request = request_;
    mii_ioctl_data mii = words(request);
    mii.reg_num = reg;
    mii.val_in = value;
    setWords(request, mii);
    if (ioctl(socket_, SIOCSMIIREG, &request) < 0) {
        KEST_LOG(KEST_ERROR, errno, "SIOCSMIIREG write %s failed", nameIn(request_).c_str());
        return false;
    }
    return true;
}

}  // namespace kest::utils
