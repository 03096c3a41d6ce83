// Whole messages over a connected TCP socket without blocking. Each message
// goes on the wire as a 4-byte big-endian length and its payload; outgoing
// messages wait in a queue, incoming ones are reassembled and handed to the
// delegate whole. A pipe lives on the event loop of the thread that made it
// and does all its work in that loop's callbacks; nothing is locked, so a pipe
// is used from that thread only.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "KRODeque.h"
#include "KROError.h"
#include "KROEventLoop.h"
#include "KROObject.h"

using KROData = std::vector<std::uint8_t>;

class KRONetworkPipe;

// What a pipe tells its owner. Every operation is optional: the defaults do
// nothing.
class KRONetworkPipeDelegate {
public:
    virtual ~KRONetworkPipeDelegate() = default;
    virtual void pipeDidReceiveMessage(KRONetworkPipe& pipe, std::shared_ptr<KROData> message);
    // The share of the message read so far. The count includes the 4 header
    // bytes, so it can read a little above the true share; kept, hosts draw
    // their progress bars from it as it is.
    virtual void pipeReceiveProgress(KRONetworkPipe& pipe, float progress);
    // The peer closed, or sent a length the pipe refuses; reads are off.
    virtual void pipeDidDisconnect(KRONetworkPipe& pipe);
};

class KRONetworkPipe : public KROObject {
    KRO_DECLARE_CLASS(KRONetworkPipe)

public:
    // Lengths above this are refused before anything is allocated: the
    // pipe logs that it cannot make the buffer and disconnects. The header
    // holds 32 bits, read sign-extended, so a garbage header would otherwise
    // ask for up to 16 EiB.
    static constexpr std::uint64_t defaultMaximumMessageLength = std::uint64_t{256} << 20;

    KRONetworkPipe() = default;
    KRONetworkPipe(const KRONetworkPipe&) = delete;
    KRONetworkPipe& operator=(const KRONetworkPipe&) = delete;
    // Leaves the event loop and closes the socket.
    ~KRONetworkPipe() override;

    // Logs that initWithSocket is the initialiser and answers none.
    bool init();
    // Makes the socket non-blocking with TCP_NODELAY and watches it on the
    // calling thread's event loop. Errors are KROError with errno as code; on
    // failure the caller keeps the socket, on success the pipe owns it.
    bool initWithSocket(int socket, KROErrorPtr* error = nullptr);

    KRONetworkPipeDelegate* delegate() const { return delegate_; }
    // Not owned.
    void setDelegate(KRONetworkPipeDelegate* delegate) { delegate_ = delegate; }

    // Call before data arrives.
    void setMaximumMessageLength(std::uint64_t length) { maximumMessageLength_ = length; }

    // The peer's numeric address, or a sentence saying why there is none.
    std::string peerAddressString() const;

    // Queues a message; none does nothing.
    void sendMessage(std::shared_ptr<const KROData> message);

    // The machinery, driven by the event loop's callbacks.
    void updateInbound();
    void updateOutbound();
    void readFromSocket();
    void writeToSocket();

    int socketID() const { return socketID_; }

private:
    void socketCallback(KROEventLoopCallbackType type);
    void disconnect();

    KRONetworkPipeDelegate* delegate_ = nullptr;
    int socketID_ = -1;
    std::shared_ptr<KROEventLoop> socketWrapper_;
    KROEventLoop::SourceID socketRunLoop_ = 0;
    std::shared_ptr<KRODeque> outputQueue_;
    std::shared_ptr<const KROData> outputMessage_;
    std::uint64_t outputMessageLength_ = 0;
    std::array<std::uint8_t, 4> outputMessageHeader_{};
    std::uint64_t outputCursor_ = 0;
    std::shared_ptr<KROData> inputMessage_;
    std::array<std::uint8_t, 4> inputMessageHeader_{};
    std::uint64_t inputMessageLength_ = 0;
    std::uint64_t inputCursor_ = 0;
    std::uint64_t maximumMessageLength_ = defaultMaximumMessageLength;
};
