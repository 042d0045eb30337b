// Sockets on the loopback interface, for the daemon's two ports.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <kest/utils/lowlevelsocket.h>

#include "descriptor.h"

inline sockaddr_in loopbackAddress(unsigned short port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// A socket bound to the port (0: any that is free), or an invalid one with errno.
inline Descriptor bindLoopback(int type, unsigned short port) {
    Descriptor fd(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopbackAddress(port);
    if (!fd.valid() || (type == SOCK_STREAM && !kest::utils::SetFdReuseIpPort(fd.get())) ||
        ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        return Descriptor();
    }
    return fd;
}

inline unsigned short boundPort(int fd) {
    sockaddr_in address = {};
    socklen_t length = sizeof(address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}
