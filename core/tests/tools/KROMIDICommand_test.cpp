// `kro midi` beside a private jackd and a test MIDI device: the endpoints it
// lists, bytes it sends arriving at the device, and what the device sends
// printed decoded as it arrives.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "KROJACKServerTest.h"
#include "KROMIDITestDevice.h"
#include "KROTestCommand.h"
#include "KROTestWaiting.h"

namespace {

using namespace std::chrono_literals;

KROCommandResult kro(const std::string& arguments) {
    return KRORunCommand("timeout -s KILL 30 " KRO_TOOL " midi " + arguments + " 2>&1");
}

// Whether anything listens to the device's output yet.
bool deviceOutIsConnected() {
    jack_status_t status{};
    jack_client_t* probe = jack_client_open("kro-test-probe", JackNoStartServer, &status);
    const jack_port_t* port = probe ? jack_port_by_name(probe, "kro-test-midi:out") : nullptr;
    const bool connected = port && jack_port_connected(port) > 0;
    if (probe) {
        jack_client_close(probe);
    }
    return connected;
}

class KROMIDICommand : public KROJACKServerTest {};

} // namespace

TEST_F(KROMIDICommand, ListsAndSendsAndRefusesWhatItCannot) {
    KROMIDITestDevice device;
    ASSERT_TRUE(device.isOpen());
    const KROCommandResult json = kro("list --json");
    EXPECT_EQ(json.status, 0);
    EXPECT_NE(json.output.find("\"inputs\":[{\"name\":\"kro-test-midi out\""), std::string::npos)
        << json.output;
    EXPECT_NE(json.output.find("\"outputs\":[{\"name\":\"kro-test-midi in\""), std::string::npos);

    const KROCommandResult sent = kro("send 'kro-test-midi in' 90 3C 64 0xF0 7D 01 F7 41");
    EXPECT_EQ(sent.status, 0) << sent.output;
    EXPECT_EQ(sent.output, "Sent 2 messages to kro-test-midi in.\n");
    // The command returns once its cycle is over; the device takes its own turn.
    KROEventually([&] { return device.arrivalCount() >= 2; }, 5s);
    const auto arrivals = device.arrivals();
    ASSERT_EQ(arrivals.size(), 2u);
    EXPECT_EQ(arrivals[0].bytes, (std::vector<std::uint8_t>{0x90, 0x3C, 0x64}));
    EXPECT_EQ(arrivals[1].bytes, (std::vector<std::uint8_t>{0xF0, 0x7D, 0x01, 0xF7}));

    struct Case {
        const char* arguments;
        int status;
        const char* message;
    };
    const Case refusals[] = {
        {"send nowhere 90 3C 64", 1, "kro: no MIDI output named nowhere\n"},
        {"send 'kro-test-midi in' 90 3G", 2, "kro: not a byte in hex: 3G\n"},
        {"send 'kro-test-midi in' 90 3C", 2, "kro: the bytes hold no whole MIDI message\n"},
        {"monitor nowhere --count 1", 1, "kro: no MIDI input named nowhere\n"},
    };
    for (const Case& c : refusals) {
        SCOPED_TRACE(c.arguments);
        const KROCommandResult result = kro(c.arguments);
        EXPECT_EQ(result.status, c.status);
        EXPECT_EQ(result.output, c.message);
    }
}

TEST_F(KROMIDICommand, MonitorPrintsMessagesDecodedAsTheyArrive) {
    KROMIDITestDevice device({{0, 0, {0x91, 0x3C, 0x64}}, {2, 10, {0xB0, 0x07, 0x7F}}});
    ASSERT_TRUE(device.isOpen());
    KROCommandResult monitored;
    std::thread monitor(
        [&] { monitored = kro("monitor 'kro-test-midi out' --count 2 --seconds 20"); });
    for (int attempt = 0; attempt < 500 && !deviceOutIsConnected(); ++attempt) {
        std::this_thread::sleep_for(10ms);
    }
    device.startSending();
    monitor.join();
    EXPECT_EQ(monitored.status, 0);
    EXPECT_NE(monitored.output.find("kro-test-midi out  Ch 2   Note On   60   100  [91 3C 64]"),
              std::string::npos)
        << monitored.output;
    EXPECT_NE(monitored.output.find("[B0 07 7F]"), std::string::npos);
}
