// Loopback throughput of network pipes beside a plain blocking socket pair
// that frames the same messages the same way (length, then payload, one
// writev per message; the reader reads the length, then the payload). Both
// pipes live on the benchmark's thread and its event loop; the plain pair
// writes from a second thread, as blocking sockets must.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include "KROBenchmarkSupport.h"
#include "KROEventLoop.h"
#include "KRONetworkAcceptor.h"
#include "KRONetworkInitiator.h"
#include "KRONetworkPipe.h"

namespace {

struct Case {
    const char* name;
    std::size_t size;
    // Messages in one batch: about 4 MiB, and enough of the small ones for
    // the per-message cost to show.
    std::size_t count;
};

const Case kCases[] = {{"64B", 64, 20000}, {"1MiB", std::size_t{1} << 20, 4}};

struct Counter : KRONetworkPipeDelegate {
    void pipeDidReceiveMessage(KRONetworkPipe&, std::shared_ptr<KROData> message) override {
        ++messages;
        bytes += message->size();
    }
    std::size_t messages = 0, bytes = 0;
};

void reportThroughput(benchmark::State& state, const Case& c) {
    state.SetBytesProcessed(std::int64_t(state.iterations() * c.size * c.count));
}

void pipes(benchmark::State& state, const Case& c) {
    auto acceptor = std::make_shared<KRONetworkAcceptor>();
    auto initiator = std::make_shared<KRONetworkInitiator>();
    std::shared_ptr<KRONetworkPipe> accepted, initiated;
    if (!acceptor->initWithAddress("127.0.0.1", 0, [&](auto pipe) { accepted = pipe; }) ||
        !initiator->initWithAddress("127.0.0.1", acceptor->port(),
                                    [&](auto pipe, auto) { initiated = pipe; })) {
        state.SkipWithError("no loopback connection");
        return;
    }
    const auto loop = KROEventLoop::current();
    while (!accepted || !initiated) {
        loop->runOnce(100);
    }
    Counter counter;
    accepted->setDelegate(&counter);
    const auto message = std::make_shared<const KROData>(c.size, std::uint8_t(0x5A));
    for (auto _ : state) {
        counter.messages = 0;
        for (std::size_t index = 0; index < c.count; ++index) {
            initiated->sendMessage(message);
        }
        while (counter.messages < c.count) {
            loop->runOnce(100);
        }
    }
    reportThroughput(state, c);
}

bool readFully(int socket, std::uint8_t* bytes, std::size_t size) {
    for (std::size_t have = 0; have < size;) {
        const ssize_t got = ::read(socket, bytes + have, size - have);
        if (got <= 0) {
            return false;
        }
        have += std::size_t(got);
    }
    return true;
}

bool writeFully(int socket, const std::uint8_t* header, const KROData& payload) {
    iovec pieces[2] = {{const_cast<std::uint8_t*>(header), 4},
                       {const_cast<std::uint8_t*>(payload.data()), payload.size()}};
    std::size_t left = 4 + payload.size();
    while (left > 0) {
        ssize_t put = ::writev(socket, pieces, 2);
        if (put <= 0) {
            return false;
        }
        left -= std::size_t(put);
        for (iovec& piece : pieces) {
            const std::size_t step = std::min(piece.iov_len, std::size_t(put));
            piece.iov_base = static_cast<std::uint8_t*>(piece.iov_base) + step;
            piece.iov_len -= step;
            put -= ssize_t(step);
        }
    }
    return true;
}

void blockingSockets(benchmark::State& state, const Case& c) {
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::listen(listener, 1);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    const int writer = ::socket(AF_INET, SOCK_STREAM, 0);
    ::connect(writer, reinterpret_cast<sockaddr*>(&address), sizeof address);
    const int reader = ::accept(listener, nullptr, nullptr);
    const int on = 1;
    ::setsockopt(writer, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ::setsockopt(reader, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);

    const KROData payload(c.size, std::uint8_t(0x5A));
    const std::uint8_t header[4] = {std::uint8_t(c.size >> 24), std::uint8_t(c.size >> 16),
                                    std::uint8_t(c.size >> 8), std::uint8_t(c.size)};
    KROData received(c.size);
    for (auto _ : state) {
        std::thread sender([&] {
            for (std::size_t index = 0; index < c.count; ++index) {
                writeFully(writer, header, payload);
            }
        });
        std::uint8_t lengthBytes[4];
        for (std::size_t index = 0; index < c.count; ++index) {
            readFully(reader, lengthBytes, 4);
            readFully(reader, received.data(), c.size);
        }
        sender.join();
    }
    reportThroughput(state, c);
    ::close(reader);
    ::close(writer);
    ::close(listener);
}

// The console output, then MB/s of both and the ratio pipe / plain sockets.
class RatioReporter : public KROCounterReporter {
public:
    RatioReporter() : KROCounterReporter("bytes_per_second", 1e-6) {}

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-8s %12s %16s %8s\n", "message", "pipe MB/s", "blocking MB/s", "ratio");
        for (const Case& c : kCases) {
            const double ours = figure(std::string("pipe/") + c.name);
            const double theirs = figure(std::string("blocking/") + c.name);
            std::printf("%-8s %12.0f %16.0f %8.2f\n", c.name, ours, theirs,
                        theirs > 0 ? ours / theirs : 0.0);
        }
    }
};

} // namespace

int main(int argc, char** argv) {
    for (const Case& c : kCases) {
        benchmark::RegisterBenchmark((std::string("pipe/") + c.name).c_str(), pipes, c)
            ->UseRealTime();
        benchmark::RegisterBenchmark((std::string("blocking/") + c.name).c_str(), blockingSockets,
                                     c)
            ->UseRealTime();
    }
    RatioReporter reporter;
    return KRORunBenchmarks(argc, argv, reporter);
}
