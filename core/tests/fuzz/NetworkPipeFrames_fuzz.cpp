// Arbitrary byte streams written to a pipe over loopback in arbitrary pieces:
// the first two bytes choose the piece sizes, the rest is the stream. What
// the pipe delivers must be exactly the whole frames a plain reading of the
// stream finds, up to the first length past the limit, where it hangs up,
// and it reports the end of the connection once.
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "KROEventLoop.h"
#include "KROLog.h"
#include "KRONetworkAcceptor.h"
#include "KRONetworkPipe.h"

namespace {

constexpr std::uint64_t limit = 1 << 16;

struct Collector : KRONetworkPipeDelegate {
    void pipeDidReceiveMessage(KRONetworkPipe&, std::shared_ptr<KROData> message) override {
        messages.push_back(std::move(*message));
    }
    void pipeDidDisconnect(KRONetworkPipe&) override { ++disconnects; }
    std::vector<KROData> messages;
    int disconnects = 0;
};

// The whole frames of the stream, and whether it holds a refused length.
std::vector<KROData> framesOf(const std::uint8_t* data, std::size_t size, bool& refused) {
    std::vector<KROData> frames;
    refused = false;
    std::size_t at = 0;
    while (size - at >= 4) {
        const std::uint32_t header = std::uint32_t(data[at]) << 24 |
                                     std::uint32_t(data[at + 1]) << 16 |
                                     std::uint32_t(data[at + 2]) << 8 | data[at + 3];
        const auto length = std::uint64_t(std::int64_t(std::int32_t(header)));
        if (length > limit) {
            refused = true;
            break;
        }
        if (size - at - 4 < length) {
            break;
        }
        frames.emplace_back(data + at + 4, data + at + 4 + length);
        at += 4 + length;
    }
    return frames;
}

struct Listener {
    std::shared_ptr<KRONetworkAcceptor> acceptor = std::make_shared<KRONetworkAcceptor>();
    std::shared_ptr<KRONetworkPipe> latest;
    Listener() {
        KROSetLogSink([](const std::string&) {});
        if (!acceptor->initWithAddress("127.0.0.1", 0, [this](auto pipe) { latest = pipe; })) {
            std::abort();
        }
    }
};

// libFuzzer's timeout alarm is installed without SA_RESTART, so any blocking
// call of the harness may come back early with EINTR; a loaded machine makes
// that likely enough to matter. An interrupted connect goes on in the kernel:
// its outcome is the socket's pending error once it turns writable.
bool connectThroughInterrupts(int peer, const sockaddr_in& address) {
    if (::connect(peer, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        return true;
    }
    if (errno != EINTR) {
        return false;
    }
    pollfd writable{peer, POLLOUT, 0};
    while (::poll(&writable, 1, -1) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    int failure = 0;
    socklen_t length = sizeof failure;
    return ::getsockopt(peer, SOL_SOCKET, SO_ERROR, &failure, &length) == 0 && failure == 0;
}

// Whether all of the piece went out; false once the pipe has hung up.
bool sendThroughInterrupts(int peer, const std::uint8_t* bytes, std::size_t count) {
    while (count > 0) {
        const ssize_t sent = ::send(peer, bytes, count, MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR) {
            return false;
        }
        if (sent > 0) {
            bytes += sent;
            count -= std::size_t(sent);
        }
    }
    return true;
}

void runUntilIdle() {
    while (KROEventLoop::current()->runOnce(0) > 0) {
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Listener listener;
    if (size < 2) {
        return 0;
    }
    std::uint32_t pieces = std::uint32_t(data[0]) << 8 | data[1];
    data += 2;
    size -= 2;

    const int peer = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(listener.acceptor->port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (!connectThroughInterrupts(peer, address)) {
        std::abort();
    }
    listener.latest.reset();
    while (!listener.latest) {
        KROEventLoop::current()->runOnce(100);
    }
    const auto pipe = listener.latest;
    listener.latest.reset();
    Collector collector;
    pipe->setDelegate(&collector);
    pipe->setMaximumMessageLength(limit);

    for (std::size_t at = 0; at < size && collector.disconnects == 0;) {
        // Pieces of 1 to 16 bytes, or the rest at once, chosen by the seed.
        std::size_t piece = (pieces & 0x10) ? size - at : (pieces & 0xF) + 1;
        pieces = pieces * 1103515245u + 12345u;
        piece = std::min(piece, size - at);
        if (!sendThroughInterrupts(peer, data + at, piece)) {
            break;
        }
        at += piece;
        runUntilIdle();
    }
    // The end of the stream is the pipe's last news, whatever was in flight.
    ::shutdown(peer, SHUT_WR);
    while (collector.disconnects == 0) {
        KROEventLoop::current()->runOnce(100);
    }
    runUntilIdle();
    // Closed with a reset, so that no port waits out TIME_WAIT: thousands of
    // inputs a second would otherwise use up the ephemeral ports.
    const linger reset{1, 0};
    ::setsockopt(peer, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    ::close(peer);

    bool refused = false;
    if (collector.messages != framesOf(data, size, refused) || collector.disconnects != 1) {
        std::abort();
    }
    return 0;
}
