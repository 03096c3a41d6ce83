#include "KRONetworkAddress.h"

#include <arpa/inet.h>
#include <netinet/in.h>

std::optional<KRONetworkAddress> KRONetworkAddress::fromString(const std::string& address,
                                                               std::uint16_t port) {
    KRONetworkAddress result;
    auto& inet = reinterpret_cast<sockaddr_in&>(result.storage);
    auto& inet6 = reinterpret_cast<sockaddr_in6&>(result.storage);
    if (::inet_pton(AF_INET, address.c_str(), &inet.sin_addr) == 1) {
        inet.sin_family = AF_INET;
        inet.sin_port = htons(port);
        result.length = sizeof inet;
        return result;
    }
    if (::inet_pton(AF_INET6, address.c_str(), &inet6.sin6_addr) == 1) {
        inet6.sin6_family = AF_INET6;
        inet6.sin6_port = htons(port);
        result.length = sizeof inet6;
        return result;
    }
    return std::nullopt;
}
