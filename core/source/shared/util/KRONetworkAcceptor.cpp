#include "KRONetworkAcceptor.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "KROErrorFamilies.h"
#include "KRONetworkAddress.h"

KRONetworkAcceptor::~KRONetworkAcceptor() {
    if (loop_) {
        loop_->removeSource(source_);
    }
    if (socket_ >= 0) {
        ::close(socket_);
    }
}

bool KRONetworkAcceptor::initWithAddress(const std::string& address, std::uint16_t port,
                                         KRONetworkConnectionHandler handler, KROErrorPtr* error) {
    const auto fail = [&](int code) {
        if (error) {
            *error = KRONetworkError::errorWithCode(
                code, KROStringWithFormat(KROLocalizedString("KRONetworkAcceptor_action_listening"),
                                          {KROFormatArgument(address)}));
        }
        return false;
    };
    const auto where = KRONetworkAddress::fromString(address, port);
    if (!where) {
        return fail(EINVAL);
    }
    socket_ = ::socket(where->family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    if (socket_ < 0 || ::setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(socket_, where->address(), where->length) != 0 ||
        ::listen(socket_, SOMAXCONN) != 0) {
        return fail(errno);
    }
    KRONetworkAddress bound;
    bound.length = sizeof bound.storage;
    ::getsockname(socket_, reinterpret_cast<sockaddr*>(&bound.storage), &bound.length);
    // Both address families keep the port at the same place.
    port_ = ntohs(reinterpret_cast<const sockaddr_in&>(bound.storage).sin_port);
    loop_ = KROEventLoop::current();
    source_ = loop_ ? loop_->addSocket(
                          socket_, [this](KROEventLoopCallbackType) { acceptConnections(); }, error)
                    : 0;
    handler_ = std::move(handler);
    return source_ != 0;
}

void KRONetworkAcceptor::acceptConnections() {
    for (;;) {
        const int connection = ::accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) {
            return;
        }
        auto pipe = std::make_shared<KRONetworkPipe>();
        KROErrorPtr error;
        if (!pipe->initWithSocket(connection, &error)) {
            error->log();
            ::close(connection);
            continue;
        }
        if (handler_) {
            handler_(std::move(pipe));
        }
    }
}
