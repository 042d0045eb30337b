/// @file
/// Registers of an Ethernet PHY, through the MII requests of its network interface.
///
/// After init() any thread may read; everything else wants one thread at a time.
#pragma once

#include <net/if.h>

#include <string>

#include <kest/utils/api.h>

namespace kest::utils {

/// @code
///     kest::utils::mdio phy;
///     unsigned short status = 0;
///     const bool linked = phy.init("eth0") && phy.read(MII_BMSR, status) && (status &
///     BMSR_LSTATUS);
/// @endcode
class KEST_API mdio {
  public:
    mdio();

    /// Closes the socket.
    ~mdio();

    mdio(const mdio&) = delete;
    mdio& operator=(const mdio&) = delete;

    /// Opens a socket and asks the interface for the address of its PHY. Once it has succeeded,
    /// further calls give true at once, whatever the name; after a failure it may be called again.
    /// @param interfaceName  such as "eth0". Only the first 16 bytes are looked at, and of those
    /// the
    ///                       kernel takes 15.
    /// @return false after one log line: no socket, no such interface, or one without MII.
    bool init(const std::string& interfaceName);

    /// Reads a register. Needs no privilege.
    /// @param reg    its number, 0 to 31 (IEEE 802.3, clause 22).
    /// @param value  untouched on failure.
    /// @return false, silently before init(), else after one log line.
    bool read(unsigned short reg, unsigned short& value) const;

    /// Writes a register. Needs CAP_NET_ADMIN.
    /// @return false, silently before init(), else after one log line.
    bool write(unsigned short reg, unsigned short value);

  private:
    int socket_ = -1;
    struct ifreq request_ = {};
    bool initialised_ = false;
};

}  // namespace kest::utils
