// Listens on a TCP address and wraps each connection it accepts in a
// KRONetworkPipe on the calling thread's event loop, handing the pipe to the
// connection handler there.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "KROError.h"
#include "KROEventLoop.h"
#include "KRONetworkPipe.h"
#include "KROObject.h"

using KRONetworkConnectionHandler = std::function<void(std::shared_ptr<KRONetworkPipe> pipe)>;

class KRONetworkAcceptor : public KROObject {
    KRO_DECLARE_CLASS(KRONetworkAcceptor)

public:
    KRONetworkAcceptor() = default;
    KRONetworkAcceptor(const KRONetworkAcceptor&) = delete;
    KRONetworkAcceptor& operator=(const KRONetworkAcceptor&) = delete;
    ~KRONetworkAcceptor() override;

    // Listens on a numeric IPv4 or IPv6 address; port 0 takes any free port
    // (see port()). Errors are KRONetworkError with errno as code.
    bool initWithAddress(const std::string& address, std::uint16_t port,
                         KRONetworkConnectionHandler handler, KROErrorPtr* error = nullptr);

    // The port listened on.
    std::uint16_t port() const { return port_; }

private:
    void acceptConnections();

    int socket_ = -1;
    std::uint16_t port_ = 0;
    KRONetworkConnectionHandler handler_;
    std::shared_ptr<KROEventLoop> loop_;
    KROEventLoop::SourceID source_ = 0;
};
