// MIDI endpoints on a private jackd (dummy backend, 48 kHz, 256 frames) beside
// a test device: a JACK client with physical MIDI ports that sends a script of
// byte chunks at chosen cycles and offsets and logs what it receives with the
// frame it arrived at.
#include <gtest/gtest.h>
#include <jack/jack.h>
#include <jack/midiport.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
#include <mutex>
#include <optional>
#include <random>
#include <thread>

#include "KROAllocationGuard.h"
#include "KROJACKMIDIBackend.h"
#include "KROJACKServerTest.h"
#include "KROMIDIController.h"
#include "KROMIDIMessage.h"
#include "KROMIDIPhysicalInput.h"
#include "KROMIDIPhysicalOutput.h"
#include "KROMIDISDSHeaderMessage.h"
#include "KROMIDISDSMessage.h"
#include "KROMIDITestDevice.h"
#include "KROMIDIVirtualInput.h"
#include "KROMIDIVirtualOutput.h"
#include "KRONotificationCenter.h"
#include "KROTestWaiting.h"
#include "KROUserDefaults.h"

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t kPeriod = 256;
constexpr double kRate = 48000.0;

bool eventually(const std::function<bool()>& condition) {
    return KROEventually(condition, 5s);
}

// Counts the allocations of every cycle of the layer on JACK's thread, and
// can hold a cycle back, as a loaded machine does, until told to go on.
class WatchedMIDIBackend : public KROJACKMIDIBackend {
public:
    std::atomic<std::uint64_t> cycles{0};
    std::atomic<std::uint64_t> allocations{0};
    std::atomic<bool> hold{false};
    std::atomic<bool> holding{false};

protected:
    void processCycle(std::uint32_t frames) override {
        if (hold.load()) {
            holding.store(true);
            while (hold.load()) {
                std::this_thread::yield();
            }
            holding.store(false);
        }
        thread_local std::optional<KROAllocationGuard> guard;
        if (!guard) {
            guard.emplace();
        }
        const std::size_t before = guard->count();
        KROJACKMIDIBackend::processCycle(frames);
        allocations.fetch_add(guard->count() - before);
        cycles.fetch_add(1);
    }
};

// Keeps what an endpoint delivers.
class Collector : public KROMIDIReceiver {
public:
    void midiInput(KROMIDIEndpoint&, const std::shared_ptr<KROMIDIMessage>& message) override {
        const std::lock_guard guard(lock_);
        messages_.push_back(message);
    }
    std::vector<std::shared_ptr<KROMIDIMessage>> messages() const {
        const std::lock_guard guard(lock_);
        return messages_;
    }
    std::size_t count() const { return messages().size(); }

private:
    mutable std::mutex lock_;
    std::vector<std::shared_ptr<KROMIDIMessage>> messages_;
};

Bytes bytesOf(const KROMIDIMessage& message) {
    return Bytes(message.bytes(), message.bytes() + message.length());
}

// A sample dump's 16-bit samples travel offset by 0x8000, left-justified in
// three 7-bit bytes: 40 samples to a packet of 120 bytes.
constexpr std::size_t kSamplesPerPacket = 40;

void packSamples(const std::int16_t* samples, std::uint8_t* bytes) {
    for (std::size_t index = 0; index < kSamplesPerPacket; ++index) {
        const auto word = std::uint16_t(samples[index] + 0x8000);
        bytes[3 * index] = std::uint8_t(word >> 9);
        bytes[3 * index + 1] = std::uint8_t((word >> 2) & 0x7F);
        bytes[3 * index + 2] = std::uint8_t((word & 0x03) << 5);
    }
}

void unpackSamples(const std::uint8_t* bytes, std::vector<std::int16_t>& samples) {
    for (std::size_t index = 0; index < kSamplesPerPacket; ++index) {
        const auto word = std::uint16_t(bytes[3 * index] << 9 | bytes[3 * index + 1] << 2 |
                                        bytes[3 * index + 2] >> 5);
        samples.push_back(std::int16_t(word - 0x8000));
    }
}

std::shared_ptr<KROMIDIMessage> handshake(std::uint8_t subID, std::uint8_t packet) {
    return KROMIDIMessage::messageWithData(Bytes{0xF0, 0x7E, 0x00, subID, packet, 0xF7}, 0.0);
}

// The receiving end of a dump: answers the header and each good packet in
// turn with an acknowledgement, and a packet with a bad checksum or out of
// order with a refusal naming it.
class DumpReceiver : public KROMIDIReceiver {
public:
    explicit DumpReceiver(KROMIDIVirtualOutput& reply) : reply_(reply) {}

    void midiInput(KROMIDIEndpoint&, const std::shared_ptr<KROMIDIMessage>& message) override {
        if (auto* header = dynamic_cast<KROMIDISDSHeaderMessage*>(message.get())) {
            frames_ = header->frames();
            reply_.sendMessage(handshake(0x7F, 0).get(), nullptr);
        } else if (auto* packet = dynamic_cast<KROMIDISDSDataMessage*>(message.get())) {
            const bool good = packet->confirmChecksum() && packet->packetNumber() == next_ % 128;
            if (good) {
                unpackSamples(packet->data(), samples_);
                ++next_;
            }
            reply_.sendMessage(handshake(good ? 0x7F : 0x7E, packet->packetNumber()).get(),
                               nullptr);
        }
    }
    std::vector<std::int16_t> samples() const {
        return {samples_.begin(),
                samples_.begin() + std::min<std::ptrdiff_t>(frames_, samples_.size())};
    }

private:
    KROMIDIVirtualOutput& reply_;
    std::uint32_t frames_ = 0;
    std::uint32_t next_ = 0;
    std::vector<std::int16_t> samples_;
};

class KROMIDIEndpointJACK : public KROJACKServerTest {
protected:
    void SetUp() override {
        KROJACKServerTest::SetUp();
        backend_ = std::make_shared<WatchedMIDIBackend>();
        KROMIDIBackend::setSharedBackend(backend_);
    }
    void TearDown() override {
        KROMIDIBackend::setSharedBackend(nullptr);
        backend_.reset();
        KROJACKServerTest::TearDown();
    }

    KROMIDIBackend::EndpointID idNamed(const std::string& name, bool source) {
        return source ? KROMIDIEndpoint::inputEndpointIDForName(name)
                      : KROMIDIEndpoint::outputEndpointIDForName(name);
    }
    void connect(const std::string& from, const std::string& to) {
        jack_status_t status{};
        jack_client_t* client = jack_client_open("kro-test-wiring", JackNoStartServer, &status);
        ASSERT_TRUE(client);
        EXPECT_EQ(jack_connect(client, from.c_str(), to.c_str()), 0);
        jack_client_close(client);
    }
    std::string portNameOf(const KROMIDIEndpoint& endpoint) {
        std::string name;
        backend_->portName(endpoint.endpointID(), name);
        return name;
    }

    std::shared_ptr<WatchedMIDIBackend> backend_;
};

} // namespace

// Notes, controllers, real-time bytes and a long sysex split over three cycles
// with a clock byte inside come out whole and in order, each stamped with the
// host time of the frame its status byte arrived at; the layer's cycle
// allocates nothing.
TEST_F(KROMIDIEndpointJACK, APhysicalInputReassemblesWhatTheDeviceSends) {
    Bytes sysexStart{0xF0, 0x7D};
    sysexStart.insert(sysexStart.end(), 400, 0x11);
    const Bytes sysexMiddle(400, 0x22);
    Bytes sysexEnd(100, 0x33);
    sysexEnd.push_back(0xF7);
    Bytes sysex = sysexStart;
    sysex.insert(sysex.end(), sysexMiddle.begin(), sysexMiddle.end());
    sysex.insert(sysex.end(), sysexEnd.begin(), sysexEnd.end());
    KROMIDITestDevice device({{0, 10, {0x90, 0x3C, 0x64}},
                              {0, 20, {0xB0, 0x07, 0x7F}},
                              {0, 30, {0xF8}},
                              {1, 0, sysexStart},
                              {2, 5, {0xF8}},
                              {2, 6, sysexMiddle},
                              {3, 0, sysexEnd},
                              {3, 50, {0x80, 0x3C, 0x00}},
                              {5, 255, {0xE0, 0x00, 0x40}}});
    ASSERT_TRUE(device.isOpen());

    const auto input = KROMIDIEndpoint::endpointWithEndpointID<KROMIDIPhysicalInput>(
        idNamed("kro-test-midi out", true));
    ASSERT_TRUE(input);
    EXPECT_EQ(input->displayName(), "kro-test-midi out");
    Collector collector;
    ASSERT_TRUE(input->addReceiver(&collector));
    ASSERT_TRUE(eventually([&] { return backend_->cycles.load() > 2; }));
    device.startSending();
    ASSERT_TRUE(eventually([&] { return collector.count() >= 7; }));

    const std::vector<Bytes> expected = {
        {0x90, 0x3C, 0x64}, {0xB0, 0x07, 0x7F}, {0xF8}, {0xF8}, sysex,
        {0x80, 0x3C, 0x00}, {0xE0, 0x00, 0x40}};
    // The chunk whose status byte starts each message, in the order of their frames.
    const std::size_t startChunk[] = {0, 1, 2, 4, 3, 7, 8};
    const std::size_t byFrame[] = {0, 1, 2, 4, 3, 5, 6};
    const auto messages = collector.messages();
    const auto frames = device.sentFrames();
    ASSERT_EQ(messages.size(), expected.size());
    for (std::size_t index = 0; index < messages.size(); ++index) {
        EXPECT_EQ(bytesOf(*messages[index]), expected[index]) << "message " << index;
    }
    // Frames apart become seconds apart: exactly within a cycle (to JACK's
    // microseconds), and to the jitter of the dummy server's clock filter
    // across cycles.
    for (std::size_t step = 1; step < messages.size(); ++step) {
        const std::size_t earlier = byFrame[step - 1];
        const std::size_t later = byFrame[step];
        SCOPED_TRACE("message " + std::to_string(later));
        const double seconds = messages[later]->timestamp() - messages[earlier]->timestamp();
        const double framesApart = double(frames[startChunk[later]] - frames[startChunk[earlier]]);
        const bool sameCycle =
            frames[startChunk[later]] / kPeriod == frames[startChunk[earlier]] / kPeriod;
        EXPECT_GT(seconds, 0.0);
        EXPECT_NEAR(seconds * kRate, framesApart, sameCycle ? 0.5 : kPeriod / 4.0);
    }
    EXPECT_EQ(backend_->allocations.load(), 0u);
    EXPECT_EQ(backend_->droppedEvents(), 0u);

    // The last receiver going stops the input and its port goes.
    EXPECT_TRUE(input->isRunning());
    EXPECT_TRUE(input->removeReceiver(&collector));
    EXPECT_FALSE(input->isRunning());
    jack_status_t status{};
    jack_client_t* probe = jack_client_open("kro-test-probe", JackNoStartServer, &status);
    ASSERT_TRUE(probe);
    EXPECT_FALSE(jack_port_by_name(probe, "krocore-midi:KRMIDIInput"));
    jack_client_close(probe);
}

// A virtual output's absolute timestamps and a physical output's timestamps
// from its timebase both land on the frame they name; 0 means the start of
// the next cycle. An event never overtakes one queued before it.
TEST_F(KROMIDIEndpointJACK, OutputsDeliverAtTheFrameTheirTimestampNames) {
    KROMIDITestDevice device;
    ASSERT_TRUE(device.isOpen());
    const auto virtualOutput =
        KROMIDIVirtualEndpoint::endpointWithName<KROMIDIVirtualOutput>("kro virtual out");
    ASSERT_TRUE(virtualOutput);
    connect(portNameOf(*virtualOutput), "kro-test-midi:in");
    const auto physicalOutput = KROMIDIEndpoint::endpointWithEndpointID<KROMIDIPhysicalOutput>(
        idNamed("kro-test-midi in", false));
    ASSERT_TRUE(physicalOutput);
    ASSERT_TRUE(physicalOutput->addSender(this));

    const double now = KROMIDIMessage::currentTime();
    struct Send {
        KROMIDIEndpoint* output;
        Bytes bytes;
        double timestamp;
    };
    const Send sends[] = {
        {virtualOutput.get(), {0xFA}, 0.0},
        {virtualOutput.get(), {0x90, 0x40, 0x40}, now + 0.100},
        {virtualOutput.get(), {0x80, 0x40, 0x00}, now + 0.150},
        {physicalOutput.get(), {0xB0, 0x01, 0x02}, 0.200},
        {physicalOutput.get(), {0xB0, 0x01, 0x03}, 0.250},
    };
    // The frames each timestamp names, read just before and just after the
    // send: a loaded dummy server runs behind the host clock, and the
    // mapping moves with it. A physical output's timebase is set at its first
    // send, so its timestamps count from between the two readings.
    const auto frameAt = [&](double seconds) {
        std::uint32_t frame = 0;
        backend_->frameForHostTime(KROMIDIMessage::machineTimestampForTimestamp(seconds), frame);
        return frame;
    };
    std::vector<std::pair<std::uint32_t, std::uint32_t>> named;
    for (const Send& send : sends) {
        auto message = KROMIDIMessage::messageWithData(send.bytes, send.timestamp);
        ASSERT_TRUE(message);
        const bool fromTimebase = send.output == physicalOutput.get();
        const std::uint32_t before = frameAt(fromTimebase ? now + send.timestamp : send.timestamp);
        KROErrorPtr error;
        ASSERT_TRUE(send.output->sendMessage(message.get(), &error)) << error->description();
        const double after = KROMIDIMessage::currentTime();
        named.emplace_back(before, frameAt(fromTimebase ? after + send.timestamp : send.timestamp));
    }
    ASSERT_TRUE(eventually([&] { return device.arrivalCount() >= 5; }))
        << device.arrivalCount() << " arrived, " << backend_->droppedEvents() << " dropped";
    auto arrivals = device.arrivals();
    ASSERT_EQ(arrivals.size(), 5u);
    // At once: first, at the start of a cycle.
    EXPECT_EQ(arrivals[0].bytes, sends[0].bytes);
    EXPECT_EQ(arrivals[0].offset, 0u);
    for (std::size_t index = 1; index < arrivals.size(); ++index) {
        SCOPED_TRACE("send " + std::to_string(index));
        const auto [earliest, latest] = named[index];
        const auto arrival =
            std::find_if(arrivals.begin(), arrivals.end(), [&](const KROMIDITestArrival& a) {
                return a.bytes == sends[index].bytes;
            });
        ASSERT_NE(arrival, arrivals.end());
        if (device.sawFrame(earliest) || device.sawFrame(latest)) {
            EXPECT_GE(arrival->frame + 1, earliest);
            EXPECT_LE(arrival->frame, latest + 1);
        } else {
            EXPECT_EQ(arrival->offset, 0u) << "due in a cycle the server skipped";
        }
    }
    EXPECT_EQ(backend_->allocations.load(), 0u);
}

// A cycle under way when a send makes a new connection runs on JACK's old
// graph: had it written the event out, nobody would have received it.
TEST_F(KROMIDIEndpointJACK, TheFirstEventToANewDestinationWaitsForTheConnection) {
    KROMIDITestDevice device;
    ASSERT_TRUE(device.isOpen());
    const auto output = KROMIDIEndpoint::endpointWithEndpointID<KROMIDIPhysicalOutput>(
        idNamed("kro-test-midi in", false));
    ASSERT_TRUE(output && output->addSender(this));
    backend_->hold.store(true);
    ASSERT_TRUE(eventually([&] { return backend_->holding.load(); }));
    std::thread release([&] {
        std::this_thread::sleep_for(50ms);
        backend_->hold.store(false);
    });
    const Bytes note{0x90, 0x3C, 0x64};
    KROErrorPtr error;
    EXPECT_TRUE(output->sendMessage(KROMIDIMessage::messageWithData(note, 0.0).get(), &error));
    release.join();
    ASSERT_TRUE(eventually([&] { return device.arrivalCount() >= 1; }));
    EXPECT_EQ(device.arrivals()[0].bytes, note);
}

// Sending where it cannot go reports the code and action hosts look for.
TEST_F(KROMIDIEndpointJACK, RefusedSendsReportTheirCode) {
    auto note = KROMIDIMessage::messageWithData(Bytes{0x90, 0x40, 0x40}, 0.0);
    auto output = std::make_shared<KROMIDIPhysicalOutput>();
    const auto virtualOutput =
        KROMIDIVirtualEndpoint::endpointWithName<KROMIDIVirtualOutput>("kro virtual out");
    ASSERT_TRUE(virtualOutput);
    struct Case {
        const char* what;
        std::function<bool(KROErrorPtr*)> send;
        std::int64_t code; // 0: no error is given
    };
    const Case cases[] = {
        {"an output that never was",
         [&](KROErrorPtr* e) { return output->sendMessage(note.get(), e); }, 1},
        {"an output not started", [&](KROErrorPtr* e) { return output->sendMessages({note}, e); },
         1},
        {"a list to a virtual output",
         [&](KROErrorPtr* e) { return virtualOutput->sendMessages({note}, e); }, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        KROErrorPtr error;
        EXPECT_FALSE(c.send(&error));
        EXPECT_EQ(error ? error->code() : 0, c.code);
    }
    EXPECT_TRUE(output->sendMessage(nullptr, nullptr));
}

// The controller follows a device that comes, goes and comes back: each
// change is posted once its lists are up to date, and a default input stays
// listed offline while its device is away.
TEST_F(KROMIDIEndpointJACK, TheControllerFollowsADeviceAndKeepsItsDefaults) {
    const auto defaultsPath = std::filesystem::temp_directory_path() /
                              ("kro-midi-defaults-" + std::to_string(getpid()) + ".plist");
    std::filesystem::remove(defaultsPath);
    KROUserDefaults defaults(defaultsPath);
    KROMIDIController& controller = KROMIDIController::sharedController();
    controller.setUserDefaults(&defaults);
    KRONotificationCount setupChanges(KROMIDIController::setupChangedNotification);
    KRONotificationCount defaultChanges(KROMIDIController::defaultEndpointsChangedNotification);
    const auto listed = [&] { return controller.inputs().endpointWithName("kro-test-midi out"); };
    EXPECT_FALSE(listed());

    auto device = std::make_unique<KROMIDITestDevice>();
    ASSERT_TRUE(eventually([&] { return setupChanges.count.load() > 0; }));
    const auto endpoint = listed();
    ASSERT_TRUE(endpoint);
    EXPECT_TRUE(controller.outputs().endpointWithName("kro-test-midi in"));

    endpoint->addToDefaults();
    endpoint->addToDefaults();
    EXPECT_EQ(defaultChanges.count.load(), 1);
    EXPECT_EQ(controller.defaultInputIDs(), std::vector<std::int32_t>{endpoint->uniqueID()});
    EXPECT_EQ(KROUserDefaults(defaultsPath).objectForKey("KROMIDIDefaultInputIDs")->count(), 1u);

    // A device's ports come and go one at a time, and each may bring its own
    // notice: the first notice after a change need not be the last.
    int seen = setupChanges.count.load();
    device.reset();
    ASSERT_TRUE(eventually([&] { return setupChanges.count.load() > seen; }));
    EXPECT_TRUE(eventually([&] { return !endpoint->isOnline(); }));
    EXPECT_NE(endpoint->displayName().find("offline"), std::string::npos);
    EXPECT_EQ(controller.defaultInputs().countOfEndpoints(), 1u);
    EXPECT_TRUE(
        eventually([&] { return !controller.outputs().endpointWithName("kro-test-midi in"); }));

    seen = setupChanges.count.load();
    device = std::make_unique<KROMIDITestDevice>();
    ASSERT_TRUE(eventually([&] { return setupChanges.count.load() > seen; }));
    EXPECT_TRUE(eventually([&] { return endpoint->isOnline(); }));
    EXPECT_EQ(controller.defaultInputs().endpoints().front(), endpoint);

    endpoint->removeFromDefaults();
    EXPECT_EQ(defaultChanges.count.load(), 2);
    EXPECT_TRUE(controller.defaultInputIDs().empty());
    controller.setUserDefaults(nullptr);
    std::filesystem::remove(defaultsPath);
}

// A sound sent as a sample dump from one pair of this system's endpoints to
// another arrives bit-exact: the header and every packet are acknowledged,
// and a packet spoiled on the way is refused and sent again.
TEST_F(KROMIDIEndpointJACK, ASampleDumpArrivesBitExactWithItsHandshakes) {
    using Output = KROMIDIVirtualOutput;
    using Input = KROMIDIVirtualInput;
    const auto senderOut = KROMIDIVirtualEndpoint::endpointWithName<Output>("dump sender out");
    const auto senderIn = KROMIDIVirtualEndpoint::endpointWithName<Input>("dump sender in");
    const auto receiverOut = KROMIDIVirtualEndpoint::endpointWithName<Output>("dump receiver out");
    const auto receiverIn = KROMIDIVirtualEndpoint::endpointWithName<Input>("dump receiver in");
    ASSERT_TRUE(senderOut && senderIn && receiverOut && receiverIn);
    connect(portNameOf(*senderOut), portNameOf(*receiverIn));
    connect(portNameOf(*receiverOut), portNameOf(*senderIn));
    DumpReceiver receiver(*receiverOut);
    Collector handshakes;
    ASSERT_TRUE(receiverIn->addReceiver(&receiver));
    ASSERT_TRUE(senderIn->addReceiver(&handshakes));

    std::mt19937 random(7);
    std::vector<std::int16_t> sound(1000);
    for (std::int16_t& sample : sound) {
        sample = std::int16_t(random());
    }
    sound[0] = -32768, sound[1] = 32767, sound[2] = 0;
    std::vector<std::string> answers;
    const auto sendAndAwait = [&](const KROMIDIMessage& message) {
        const std::size_t before = handshakes.count();
        EXPECT_TRUE(senderOut->sendMessage(&message, nullptr));
        EXPECT_TRUE(eventually([&] { return handshakes.count() > before; }));
        const auto answer = handshakes.messages().back();
        answers.push_back(answer->className());
        return std::dynamic_pointer_cast<KROMIDISDSSuccessMessage>(answer) != nullptr;
    };

    auto header = KROMIDISDSHeaderMessage::message();
    header->setSampleNumber(1);
    header->setDepth(16);
    header->setRate(48000);
    header->setFrames(header->wordForFrame(std::uint32_t(sound.size())));
    ASSERT_TRUE(sendAndAwait(*header));
    const std::size_t packets = (sound.size() + kSamplesPerPacket - 1) / kSamplesPerPacket;
    sound.resize(packets * kSamplesPerPacket, 0);
    for (std::size_t number = 0; number < packets; ++number) {
        auto packet = KROMIDISDSDataMessage::message();
        packet->setPacketNumber(std::uint8_t(number % 128));
        std::uint8_t data[KROMIDISDSDataMessage::kDataLength];
        packSamples(&sound[number * kSamplesPerPacket], data);
        packet->setData(data);
        if (number == 3) {
            Bytes spoiled(packet->bytes(), packet->bytes() + packet->length());
            spoiled[20] ^= 0x01;
            EXPECT_FALSE(sendAndAwait(*KROMIDIMessage::messageWithData(spoiled, 0.0)));
        }
        ASSERT_TRUE(sendAndAwait(*packet)) << "packet " << number;
    }
    sound.resize(1000);
    EXPECT_EQ(receiver.samples(), sound);
    EXPECT_EQ(answers.size(), packets + 2);
    EXPECT_EQ(answers[4], "KROMIDISDSErrorMessage");
    EXPECT_EQ(std::count(answers.begin(), answers.end(), "KROMIDISDSSuccessMessage"),
              std::ptrdiff_t(packets + 1));
    receiverIn->removeReceiver(&receiver);
    senderIn->removeReceiver(&handshakes);
}

// A virtual input let go while its receiver is busy with one of two notes
// that came in one event waits for that receiver, and the rest of the event
// still comes out whole: what reassembles it goes only after delivery has
// stopped.
TEST_F(KROMIDIEndpointJACK, AVirtualInputLetGoMidEventFinishesTheEventFirst) {
    KROMIDITestDevice device({{0, 0, {0x90, 0x3C, 0x64, 0x90, 0x3E, 0x64}}});
    ASSERT_TRUE(device.isOpen());
    auto input = KROMIDIVirtualEndpoint::endpointWithName<KROMIDIVirtualInput>("kro busy in");
    ASSERT_TRUE(input);
    connect("kro-test-midi:out", portNameOf(*input));

    class SlowReceiver : public Collector {
    public:
        std::atomic<bool> inside{false};
        void midiInput(KROMIDIEndpoint& endpoint,
                       const std::shared_ptr<KROMIDIMessage>& message) override {
            inside.store(true);
            std::this_thread::sleep_for(100ms);
            Collector::midiInput(endpoint, message);
        }
    } receiver;
    ASSERT_TRUE(input->addReceiver(&receiver));
    device.startSending();
    ASSERT_TRUE(eventually([&] { return receiver.inside.load(); }));
    input.reset();

    const auto messages = receiver.messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(bytesOf(*messages[0]), (Bytes{0x90, 0x3C, 0x64}));
    EXPECT_EQ(bytesOf(*messages[1]), (Bytes{0x90, 0x3E, 0x64}));
}
