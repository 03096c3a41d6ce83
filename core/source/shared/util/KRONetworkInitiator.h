// Opens a TCP connection without blocking the event loop and wraps it in a
// KRONetworkPipe once the peer has accepted it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "KROError.h"
#include "KROEventLoop.h"
#include "KRONetworkPipe.h"
#include "KROObject.h"

// Gets the pipe, or none and the error of the failed connection.
using KRONetworkInitiatorHandler =
    std::function<void(std::shared_ptr<KRONetworkPipe> pipe, KROErrorPtr error)>;

class KRONetworkInitiator : public KROObject {
    KRO_DECLARE_CLASS(KRONetworkInitiator)

public:
    KRONetworkInitiator() = default;
    KRONetworkInitiator(const KRONetworkInitiator&) = delete;
    KRONetworkInitiator& operator=(const KRONetworkInitiator&) = delete;
    ~KRONetworkInitiator() override;

    // Starts connecting to a numeric IPv4 or IPv6 address; the handler runs
    // on the calling thread's event loop when the attempt ends. A failure
    // before the attempt starts returns false with a KRONetworkError instead.
    bool initWithAddress(const std::string& address, std::uint16_t port,
                         KRONetworkInitiatorHandler handler, KROErrorPtr* error = nullptr);

private:
    void finishConnecting();
    void closeSocket();

    int socket_ = -1;
    std::string address_;
    KRONetworkInitiatorHandler handler_;
    std::shared_ptr<KROEventLoop> loop_;
    KROEventLoop::SourceID source_ = 0;
};
