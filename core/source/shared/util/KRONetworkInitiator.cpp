#include "KRONetworkInitiator.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "KROErrorFamilies.h"
#include "KRONetworkAddress.h"

namespace {

KROErrorPtr connectionError(int code, const std::string& address) {
    return KRONetworkError::errorWithCode(
        code, KROStringWithFormat(KROLocalizedString("KRONetworkInitiator_action_connecting"),
                                  {KROFormatArgument(address)}));
}

} // namespace

KRONetworkInitiator::~KRONetworkInitiator() {
    closeSocket();
}

void KRONetworkInitiator::closeSocket() {
    if (loop_) {
        loop_->removeSource(source_);
        source_ = 0;
    }
    if (socket_ >= 0) {
        ::close(socket_);
        socket_ = -1;
    }
}

bool KRONetworkInitiator::initWithAddress(const std::string& address, std::uint16_t port,
                                          KRONetworkInitiatorHandler handler, KROErrorPtr* error) {
    address_ = address;
    const auto fail = [&](int code) {
        closeSocket();
        if (error) {
            *error = connectionError(code, address);
        }
        return false;
    };
    const auto where = KRONetworkAddress::fromString(address, port);
    if (!where) {
        return fail(EINVAL);
    }
    socket_ = ::socket(where->family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (socket_ < 0) {
        return fail(errno);
    }
    if (::connect(socket_, where->address(), where->length) != 0 && errno != EINPROGRESS) {
        return fail(errno);
    }
    loop_ = KROEventLoop::current();
    source_ = loop_ ? loop_->addSocket(
                          socket_, [this](KROEventLoopCallbackType) { finishConnecting(); }, error)
                    : 0;
    if (source_ == 0) {
        return fail(0);
    }
    // The socket turns writable when the peer has answered, either way.
    loop_->enableCallbacks(source_, KROEventLoopCallbackType::write);
    handler_ = std::move(handler);
    return true;
}

void KRONetworkInitiator::finishConnecting() {
    int failure = 0;
    socklen_t length = sizeof failure;
    if (::getsockopt(socket_, SOL_SOCKET, SO_ERROR, &failure, &length) != 0) {
        failure = errno;
    }
    // The pipe watches the socket itself from here on.
    const int connected = socket_;
    loop_->removeSource(source_);
    source_ = 0;
    auto handler = std::move(handler_);
    std::shared_ptr<KRONetworkPipe> pipe;
    KROErrorPtr error;
    if (failure == 0) {
        pipe = std::make_shared<KRONetworkPipe>();
        if (pipe->initWithSocket(connected, &error)) {
            socket_ = -1;
        } else {
            pipe.reset();
        }
    } else {
        error = connectionError(failure, address_);
    }
    closeSocket();
    if (handler) {
        handler(std::move(pipe), std::move(error));
    }
}
