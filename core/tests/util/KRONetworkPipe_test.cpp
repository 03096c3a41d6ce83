// Network pipes over loopback TCP against a raw peer and each other.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "KROEventLoop.h"
#include "KROLog.h"
#include "KRONetworkAcceptor.h"
#include "KRONetworkInitiator.h"
#include "KRONetworkPipe.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Recorder : KRONetworkPipeDelegate {
    void pipeDidReceiveMessage(KRONetworkPipe&, std::shared_ptr<KROData> message) override {
        messages.push_back(std::move(*message));
        if (onMessage) {
            onMessage(messages.back());
        }
    }
    void pipeReceiveProgress(KRONetworkPipe&, float value) override { progress.push_back(value); }
    void pipeDidDisconnect(KRONetworkPipe&) override { ++disconnects; }

    std::vector<KROData> messages;
    std::vector<float> progress;
    int disconnects = 0;
    std::function<void(const KROData&)> onMessage;
};

// Runs the thread's loop until done() holds; false when it does not in time.
bool runUntil(const std::function<bool()>& done,
              std::chrono::seconds limit = std::chrono::seconds(30)) {
    const auto deadline = Clock::now() + limit;
    while (!done()) {
        if (Clock::now() > deadline) {
            return false;
        }
        KROEventLoop::current()->runOnce(10);
    }
    return true;
}

// Runs the loop until it has been idle for a moment; false when it never
// settles within 10 s.
bool runUntilIdle() {
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (KROEventLoop::current()->runOnce(30) > 0) {
        if (Clock::now() > deadline) {
            return false;
        }
    }
    return true;
}

KROData frame(const std::string& payload) {
    const auto length = std::uint32_t(payload.size());
    KROData bytes(4 + payload.size());
    for (int index = 0; index < 4; ++index) {
        bytes[index] = std::uint8_t(length >> (24 - 8 * index));
    }
    std::copy(payload.begin(), payload.end(), bytes.begin() + 4);
    return bytes;
}

void writeAll(int socket, const KROData& bytes) {
    ASSERT_EQ(::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
}

void setBufferSizes(int socket, int bytes) {
    ::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
    ::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
}

// A pipe made by an acceptor, and the blocking raw socket at its other end.
struct RawPeer {
    std::shared_ptr<KRONetworkAcceptor> acceptor = std::make_shared<KRONetworkAcceptor>();
    std::shared_ptr<KRONetworkPipe> pipe;
    Recorder recorder;
    int peer = -1;

    explicit RawPeer(int bufferBytes = 0) {
        EXPECT_TRUE(acceptor->initWithAddress("127.0.0.1", 0, [this](auto made) { pipe = made; }));
        peer = ::socket(AF_INET, SOCK_STREAM, 0);
        // A pipe that fails to answer fails the test instead of hanging it.
        const timeval patience{10, 0};
        ::setsockopt(peer, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        if (bufferBytes > 0) {
            setBufferSizes(peer, bufferBytes);
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(acceptor->port());
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(peer, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_TRUE(runUntil([&] { return pipe != nullptr; }));
        if (pipe) {
            pipe->setDelegate(&recorder);
            if (bufferBytes > 0) {
                setBufferSizes(pipe->socketID(), bufferBytes);
            }
        }
    }
    ~RawPeer() {
        if (peer >= 0) {
            ::close(peer);
        }
    }
};

// Two pipes joined by an acceptor and an initiator.
struct PipePair {
    std::shared_ptr<KRONetworkAcceptor> acceptor = std::make_shared<KRONetworkAcceptor>();
    std::shared_ptr<KRONetworkInitiator> initiator = std::make_shared<KRONetworkInitiator>();
    std::shared_ptr<KRONetworkPipe> accepted, initiated;

    explicit PipePair(const std::string& address = "127.0.0.1") {
        EXPECT_TRUE(acceptor->initWithAddress(address, 0, [this](auto made) { accepted = made; }));
        EXPECT_TRUE(
            initiator->initWithAddress(address, acceptor->port(), [this](auto made, auto error) {
                EXPECT_FALSE(error);
                initiated = made;
            }));
        EXPECT_TRUE(runUntil([&] { return accepted && initiated; }));
    }
};

// Message n of a stream: sizes spread evenly over the powers of two up to
// 16 MiB, so that empty, small and huge messages all come often.
KROData randomMessage(std::uint64_t seed, std::uint64_t n) {
    std::mt19937_64 random(seed * 1000003u + n);
    const auto bits = random() % 26;
    const std::size_t size =
        bits == 25 ? std::size_t{16} << 20 : random() % (std::size_t{1} << bits);
    KROData bytes(size + 8);
    for (std::size_t index = 0; index < size; index += 8) {
        const std::uint64_t word = random();
        std::memcpy(bytes.data() + index, &word, 8);
    }
    bytes.resize(size);
    return bytes;
}

std::uint64_t messageCount() {
    const char* text = std::getenv("KRO_PIPE_MESSAGES");
    return text ? std::strtoull(text, nullptr, 10) : 40;
}

} // namespace

// Each step writes raw bytes to the pipe; the table gives what the delegate
// has then got. Progress counts the 4 header bytes, so it can pass 1.
TEST(KRONetworkPipe, ReassemblesFramesHoweverTheBytesArrive) {
    struct Step {
        KROData bytes;
        std::vector<std::string> messagesSoFar;
    };
    struct Case {
        const char* what;
        std::vector<Step> steps;
        std::vector<float> progress;
    };
    const auto twoFrames = [] {
        KROData bytes = frame("abc");
        const KROData second = frame("hello");
        bytes.insert(bytes.end(), second.begin(), second.end());
        return bytes;
    }();
    const std::string hundred(100, 'x');
    const KROData hundredFrame = frame(hundred);
    const Case cases[] = {
        {"two messages back to back", {{twoFrames, {"abc", "hello"}}}, {4.0f / 3, 4.0f / 5}},
        {"an empty message", {{frame(""), {""}}}, {}},
        {"a header split over two reads",
         {{{0}, {}}, {{0, 0, 2, 'o'}, {}}, {{'k'}, {"ok"}}},
         {2.0f, 2.5f}},
        {"a payload in two pieces",
         {{KROData(hundredFrame.begin(), hundredFrame.begin() + 54), {}},
          {KROData(hundredFrame.begin() + 54, hundredFrame.end()), {hundred}}},
         {0.04f, 0.54f}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        RawPeer raw;
        ASSERT_TRUE(raw.pipe);
        for (const Step& step : c.steps) {
            writeAll(raw.peer, step.bytes);
            EXPECT_TRUE(runUntilIdle());
            std::vector<std::string> got;
            for (const KROData& message : raw.recorder.messages) {
                got.emplace_back(message.begin(), message.end());
            }
            EXPECT_EQ(got, step.messagesSoFar);
        }
        EXPECT_EQ(raw.recorder.progress, c.progress);
        EXPECT_EQ(raw.recorder.disconnects, 0);
    }
}

// Messages of random sizes from 0 bytes to 16 MiB cross both ways at once,
// each delivered whole, in order, never merged. KRO_PIPE_MESSAGES sets the
// count per direction.
TEST(KRONetworkPipe, CarriesManyMessagesOfRandomSizesBothWays) {
    PipePair pair;
    ASSERT_TRUE(pair.accepted && pair.initiated);
    const std::uint64_t count = messageCount();
    // A few messages in flight per direction, so that a long run keeps its
    // memory bounded.
    const std::uint64_t window = 4;
    struct Direction {
        KRONetworkPipe* sender = nullptr;
        std::uint64_t seed = 0, sent = 0, received = 0, wrong = 0;
        std::deque<std::shared_ptr<const KROData>> inFlight;
        Recorder recorder;
        void sendOne() {
            inFlight.push_back(std::make_shared<const KROData>(randomMessage(seed, sent++)));
            sender->sendMessage(inFlight.back());
        }
    };
    Direction directions[2];
    directions[0].sender = pair.accepted.get(), directions[0].seed = 1;
    directions[1].sender = pair.initiated.get(), directions[1].seed = 2;
    for (int side = 0; side < 2; ++side) {
        Direction& direction = directions[side];
        (side == 0 ? pair.initiated : pair.accepted)->setDelegate(&direction.recorder);
        direction.recorder.onMessage = [&direction, count](const KROData& message) {
            direction.wrong += message != *direction.inFlight.front();
            direction.inFlight.pop_front();
            ++direction.received;
            direction.recorder.messages.clear();
            if (direction.sent < count) {
                direction.sendOne();
            }
        };
        while (direction.sent < std::min(count, window)) {
            direction.sendOne();
        }
    }
    ASSERT_TRUE(
        runUntil([&] { return directions[0].received == count && directions[1].received == count; },
                 std::chrono::seconds(30 + count)));
    for (const Direction& direction : directions) {
        EXPECT_EQ(direction.wrong, 0u);
        EXPECT_EQ(direction.recorder.disconnects, 0);
    }
}

// A peer that leaves mid-message, or sends a length past the limit (sign-
// extended ones among them, refused before anything is allocated), ends the
// pipe's reading: one disconnect, nothing delivered. The end of the stream
// stays readable, so a pipe that kept reading would report it again and again.
TEST(KRONetworkPipe, DisconnectsOnceWhenThePeerLeavesOrSendsAnImpossibleLength) {
    struct Case {
        const char* what;
        KROData bytes;
        std::vector<std::string> log; // and the pipe hangs up; none: the peer leaves
    };
    const Case cases[] = {
        {"the peer leaving mid-message", {0, 0, 0, 100, 'x', 'y'}, {}},
        {"all bits set",
         {0xFF, 0xFF, 0xFF, 0xFF},
         {"KRONetworkPipe: Unable to create in buffer of length 18446744073709551615."}},
        {"the sign bit",
         {0x80, 0, 0, 0},
         {"KRONetworkPipe: Unable to create in buffer of length 18446744071562067968."}},
        {"one past the limit",
         {0, 0x10, 0, 1},
         {"KRONetworkPipe: Unable to create in buffer of length 1048577."}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        RawPeer raw;
        ASSERT_TRUE(raw.pipe);
        raw.pipe->setMaximumMessageLength(1 << 20);
        std::vector<std::string> log;
        KROSetLogSink([&log](const std::string& line) { log.push_back(line); });
        writeAll(raw.peer, c.bytes);
        if (c.log.empty()) {
            ::shutdown(raw.peer, SHUT_WR);
        }
        EXPECT_TRUE(runUntil([&] { return raw.recorder.disconnects > 0; }));
        EXPECT_TRUE(runUntilIdle());
        KROSetLogSink({});
        EXPECT_EQ(log, c.log);
        EXPECT_EQ(raw.recorder.disconnects, 1);
        EXPECT_TRUE(raw.recorder.messages.empty());
        std::uint8_t byte;
        if (!c.log.empty()) {
            EXPECT_EQ(::recv(raw.peer, &byte, 1, 0), 0) << "the pipe hangs up";
        }
    }
    // The limit itself is allowed.
    RawPeer raw;
    ASSERT_TRUE(raw.pipe);
    raw.pipe->setMaximumMessageLength(3);
    writeAll(raw.peer, frame("abc"));
    EXPECT_TRUE(runUntil([&] { return raw.recorder.messages.size() == 1; }));
}

// Through 4 KiB socket buffers every large write is partial. A read or
// write that would block logs nothing and keeps its cursor, a message of none
// sends nothing, and a slow reader gets the exact frames in order.
TEST(KRONetworkPipe, WritesExactFramesThroughFullBuffersToASlowReader) {
    RawPeer raw(4096);
    ASSERT_TRUE(raw.pipe);
    KROData expected;
    raw.pipe->sendMessage(nullptr);
    for (const std::string& payload :
         {std::string(1 << 20, 'a'), std::string(), std::string(70000, 'b')}) {
        raw.pipe->sendMessage(std::make_shared<const KROData>(payload.begin(), payload.end()));
        const KROData bytes = frame(payload);
        expected.insert(expected.end(), bytes.begin(), bytes.end());
    }
    std::vector<std::string> log;
    KROSetLogSink([&log](const std::string& line) { log.push_back(line); });
    EXPECT_TRUE(runUntilIdle());
    raw.pipe->writeToSocket();
    raw.pipe->readFromSocket();
    KROSetLogSink({});
    EXPECT_TRUE(log.empty());

    KROData received(expected.size());
    std::atomic<bool> finished{false};
    std::thread reader([&] {
        for (std::size_t have = 0; have < received.size();) {
            const ssize_t got = ::read(raw.peer, received.data() + have,
                                       std::min<std::size_t>(1000, received.size() - have));
            have += got > 0 ? std::size_t(got) : received.size();
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
        finished = true;
    });
    EXPECT_TRUE(runUntil([&] { return finished.load(); }));
    reader.join();
    EXPECT_TRUE(received == expected);
    // With everything sent, write readiness is no news: the loop goes quiet.
    EXPECT_TRUE(runUntilIdle());
}

// Sockets a pipe cannot use: the error names the step, with errno as code.
TEST(KRONetworkPipe, RefusesSocketsItCannotUse) {
    int unixPair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, unixPair), 0);
    struct Case {
        const char* what;
        int socket;
        std::int64_t code;
        const char* action;
    };
    const Case cases[] = {
        {"a closed descriptor", -1, EBADF, "KRONetworkPipe_action_getInfo"},
        {"a local socket", unixPair[0], EOPNOTSUPP, "KRONetworkPipe_action_settingOptions"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        auto pipe = std::make_shared<KRONetworkPipe>();
        KROErrorPtr error;
        EXPECT_FALSE(pipe->initWithSocket(c.socket, &error));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code(), c.code);
        EXPECT_EQ(error->description().rfind(KROLocalizedString(c.action) + " ", 0), 0u);
    }
    // The caller keeps a refused socket.
    EXPECT_EQ(::write(unixPair[0], "x", 1), 1);
    ::close(unixPair[0]);
    ::close(unixPair[1]);

    std::vector<std::string> log;
    KROSetLogSink([&log](const std::string& line) { log.push_back(line); });
    EXPECT_FALSE(std::make_shared<KRONetworkPipe>()->init());
    KROSetLogSink({});
    EXPECT_EQ(log, std::vector<std::string>{
                       "KRONetworkPipe init message called. Should call initWithSocket:"});
}

// Acceptor and initiator connect over either family and each pipe names its
// peer; a socket without a peer says why in words; a refused connection
// hands over no pipe and the refusal; an address that is no number is refused.
TEST(KRONetworkPipe, ConnectsAndNamesItsPeerOrSaysWhyNot) {
    for (const char* address : {"127.0.0.1", "::1"}) {
        SCOPED_TRACE(address);
        PipePair pair(address);
        ASSERT_TRUE(pair.accepted && pair.initiated);
        EXPECT_EQ(pair.accepted->peerAddressString(), address);
        EXPECT_EQ(pair.initiated->peerAddressString(), address);
    }
    auto lonely = std::make_shared<KRONetworkPipe>();
    ASSERT_TRUE(lonely->initWithSocket(::socket(AF_INET, SOCK_STREAM, 0)));
    EXPECT_EQ(lonely->peerAddressString(), "<unknown peer; the socket is not connected>");

    const auto closedPort = [] { return std::make_shared<PipePair>()->acceptor->port(); }();
    auto initiator = std::make_shared<KRONetworkInitiator>();
    KROErrorPtr refusal;
    ASSERT_TRUE(initiator->initWithAddress("127.0.0.1", closedPort, [&](auto pipe, auto error) {
        EXPECT_FALSE(pipe);
        refusal = error;
    }));
    EXPECT_TRUE(runUntil([&] { return refusal != nullptr; }));
    EXPECT_EQ(refusal->className(), "KRONetworkError");
    EXPECT_EQ(refusal->code(), ECONNREFUSED);
    KROErrorPtr error;
    EXPECT_FALSE(
        std::make_shared<KRONetworkAcceptor>()->initWithAddress("localhost", 0, {}, &error));
    EXPECT_EQ(error->code(), EINVAL);
}
