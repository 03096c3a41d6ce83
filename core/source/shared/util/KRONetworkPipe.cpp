#include "KRONetworkPipe.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "KROLog.h"

namespace {

// The deque holds objects; a queued message rides in one of these.
struct QueuedMessage : KROObject {
    explicit QueuedMessage(std::shared_ptr<const KROData> bytes) : bytes(std::move(bytes)) {}
    std::shared_ptr<const KROData> bytes;
};

// send and sendmsg rather than write and writev: the same calls, but a peer
// that has gone away gives EPIPE instead of killing the process with SIGPIPE.
ssize_t sendPieces(int socket, iovec* pieces, std::size_t count) {
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = count;
    return ::sendmsg(socket, &message, MSG_NOSIGNAL);
}

std::string peerNameFailure(int code) {
    const char* reason = "KRONetworkPipe_unknownPeerName_unknownError";
    switch (code) {
    case EBADF:
        reason = "KRONetworkPipe_unknownPeerName_EBADF";
        break;
    case EFAULT:
        reason = "KRONetworkPipe_unknownPeerName_EFAULT";
        break;
    case ENOTSOCK:
        reason = "KRONetworkPipe_unknownPeerName_ENOTSOCK";
        break;
    case ENOBUFS:
        reason = "KRONetworkPipe_unknownPeerName_ENOBUFS";
        break;
    case ENOTCONN:
        reason = "KRONetworkPipe_unknownPeerName_ENOTCONN";
        break;
    default:
        break;
    }
    return KROStringWithFormat(KROLocalizedString("KRONetworkPipe_unknownPeerName"),
                               {KROFormatArgument(KROLocalizedString(reason))});
}

bool fail(KROErrorPtr* error, std::int64_t code, const char* action) {
    if (error) {
        *error = KROError::errorWithCode(code, KROLocalizedString(action));
    }
    return false;
}

} // namespace

void KRONetworkPipeDelegate::pipeDidReceiveMessage(KRONetworkPipe&, std::shared_ptr<KROData>) {}
void KRONetworkPipeDelegate::pipeReceiveProgress(KRONetworkPipe&, float) {}
void KRONetworkPipeDelegate::pipeDidDisconnect(KRONetworkPipe&) {}

KRONetworkPipe::~KRONetworkPipe() {
    if (socketWrapper_) {
        socketWrapper_->removeSource(socketRunLoop_);
    }
    if (socketID_ >= 0) {
        ::close(socketID_);
    }
}

bool KRONetworkPipe::init() {
    KROLog("KRONetworkPipe init message called. Should call initWithSocket:");
    return false;
}

bool KRONetworkPipe::initWithSocket(int socket, KROErrorPtr* error) {
    outputQueue_ = std::make_shared<KRODeque>();
    if (!outputQueue_->init()) {
        outputQueue_.reset();
        return fail(error, 0, "KRONetworkPipe_action_creatingQueue");
    }
    const auto release = [&](int code, const char* action) {
        outputQueue_.reset();
        return fail(error, code, action);
    };
    const int flags = ::fcntl(socket, F_GETFL);
    if (flags < 0) {
        return release(errno, "KRONetworkPipe_action_getInfo");
    }
    if (::fcntl(socket, F_SETFL, flags | O_NONBLOCK) < 0) {
        return release(errno, "KRONetworkPipe_action_setInfo");
    }
    const int on = 1;
    if (::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) < 0) {
        return release(errno, "KRONetworkPipe_action_settingOptions");
    }
    auto loop = KROEventLoop::current();
    const auto source =
        loop ? loop->addSocket(socket,
                               [this](KROEventLoopCallbackType type) { socketCallback(type); })
             : 0;
    if (source == 0) {
        return release(0, "KRONetworkPipe_action_creatingCFSocket");
    }
    socketWrapper_ = std::move(loop);
    socketRunLoop_ = source;
    socketID_ = socket;
    return true;
}

void KRONetworkPipe::socketCallback(KROEventLoopCallbackType type) {
    switch (type) {
    case KROEventLoopCallbackType::write:
        writeToSocket();
        break;
    case KROEventLoopCallbackType::read:
        readFromSocket();
        break;
    default:
        KROLog("KRONetworkPipe: Unexpected callback type %d", static_cast<int>(type));
        break;
    }
}

std::string KRONetworkPipe::peerAddressString() const {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (::getpeername(socketID_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return peerNameFailure(errno);
    }
    char text[INET6_ADDRSTRLEN] = {};
    if (address.ss_family == AF_INET) {
        ::inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in&>(address).sin_addr, text, sizeof text);
        return text;
    }
    if (address.ss_family == AF_INET6) {
        ::inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6&>(address).sin6_addr, text,
                    sizeof text);
        return text;
    }
    return KROStringWithFormat("<unknown peer; unexpected address family %d>",
                               {KROFormatArgument(int(address.ss_family))});
}

void KRONetworkPipe::sendMessage(std::shared_ptr<const KROData> message) {
    if (!message) {
        return;
    }
    outputQueue_->pushBack(std::make_shared<QueuedMessage>(std::move(message)));
    updateOutbound();
}

void KRONetworkPipe::readFromSocket() {
    ssize_t result;
    if (inputCursor_ < 4) {
        result = ::read(socketID_, inputMessageHeader_.data() + inputCursor_, 4 - inputCursor_);
    } else {
        result = ::read(socketID_, inputMessage_->data() + (inputCursor_ - 4),
                        inputMessageLength_ + 4 - inputCursor_);
    }
    if (result < 0) {
        if (errno != EAGAIN) {
            KROLog("KRONetworkPipe: Error reading from socket (%ld)", long(errno));
        }
        return;
    }
    if (result == 0) {
        disconnect();
        return;
    }
    inputCursor_ += std::uint64_t(result);
    updateInbound();
}

void KRONetworkPipe::disconnect() {
    socketWrapper_->disableCallbacks(socketRunLoop_, KROEventLoopCallbackType::read);
    if (delegate_) {
        delegate_->pipeDidDisconnect(*this);
    }
}

void KRONetworkPipe::updateInbound() {
    if (inputCursor_ == 4) {
        const std::uint32_t header = std::uint32_t(inputMessageHeader_[0]) << 24 |
                                     std::uint32_t(inputMessageHeader_[1]) << 16 |
                                     std::uint32_t(inputMessageHeader_[2]) << 8 |
                                     inputMessageHeader_[3];
        // Kept: the length is sign-extended, so a header of 0x80000000 and up
        // asks for more than 16 EiB; the limit below turns it away.
        inputMessageLength_ = std::uint64_t(std::int64_t(std::int32_t(header)));
        try {
            if (inputMessageLength_ > maximumMessageLength_) {
                throw std::bad_alloc();
            }
            inputMessage_ = std::make_shared<KROData>(inputMessageLength_);
        } catch (const std::bad_alloc&) {
            KROLog("KRONetworkPipe: Unable to create in buffer of length %lu.",
                   static_cast<unsigned long>(inputMessageLength_));
            // Reading on would read into nothing: the stream has lost its frames.
            ::shutdown(socketID_, SHUT_RDWR);
            disconnect();
            return;
        }
    }
    if (!inputMessage_) {
        return;
    }
    if (inputCursor_ == inputMessage_->size() + 4) {
        auto message = std::move(inputMessage_);
        inputCursor_ = 0;
        if (delegate_) {
            delegate_->pipeDidReceiveMessage(*this, std::move(message));
        }
    } else if (delegate_) {
        delegate_->pipeReceiveProgress(*this, float(inputCursor_) / float(inputMessageLength_));
    }
}

void KRONetworkPipe::updateOutbound() {
    if (!outputMessage_ || outputCursor_ == outputMessageLength_ + 4) {
        outputMessage_.reset();
        if (auto front = outputQueue_->popFront()) {
            outputMessage_ = static_cast<QueuedMessage&>(*front).bytes;
            outputMessageLength_ = outputMessage_->size();
            const auto length = std::uint32_t(outputMessageLength_);
            outputMessageHeader_ = {std::uint8_t(length >> 24), std::uint8_t(length >> 16),
                                    std::uint8_t(length >> 8), std::uint8_t(length)};
            outputCursor_ = 0;
        }
    }
    if (outputMessage_) {
        socketWrapper_->enableCallbacks(socketRunLoop_, KROEventLoopCallbackType::write);
    }
}

void KRONetworkPipe::writeToSocket() {
    if (!outputMessage_) {
        return;
    }
    ssize_t result;
    auto* payload = const_cast<std::uint8_t*>(outputMessage_->data());
    if (outputCursor_ < 4) {
        iovec pieces[2] = {{outputMessageHeader_.data() + outputCursor_, 4 - outputCursor_},
                           {payload, outputMessageLength_}};
        result = sendPieces(socketID_, pieces, 2);
    } else {
        iovec piece = {payload + (outputCursor_ - 4), outputMessageLength_ + 4 - outputCursor_};
        result = sendPieces(socketID_, &piece, 1);
    }
    if (result < 0) {
        if (errno != EAGAIN) {
            KROLog("KRONetworkPipe: Error writing to socket (%ld)", long(errno));
        } else {
            // The cursor stays; the message waits for the next write readiness.
            updateOutbound();
        }
        return;
    }
    outputCursor_ += std::uint64_t(result);
    updateOutbound();
}
