// A numeric IPv4 or IPv6 address and a port as the socket calls take them.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <string>

struct KRONetworkAddress {
    sockaddr_storage storage{};
    socklen_t length = 0;

    int family() const { return storage.ss_family; }
    const sockaddr* address() const { return reinterpret_cast<const sockaddr*>(&storage); }

    // None when the text is no numeric address.
    static std::optional<KRONetworkAddress> fromString(const std::string& address,
                                                       std::uint16_t port);
};
