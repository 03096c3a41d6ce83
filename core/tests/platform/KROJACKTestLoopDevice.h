// A sound card made of a JACK client, for the playthrough tests: it owns
// physical capture and playback ports, as a card's driver does, so the device
// layer lists it as a device. It sends an impulse out of its capture ports
// every spacing frames and notes, on JACK's frame clock, when each comes back
// on its playback ports. The dummy backend's own capture ports are silent, so
// they cannot carry a signal to measure.
#pragma once

#include <jack/jack.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

class KROJACKTestLoopDevice {
public:
    static constexpr const char* name = "kro-test-loop";
    static constexpr std::size_t channels = 2;
    static constexpr std::size_t capacity = 256;
    // The impulse sits this far into its block, so that a delay that is off
    // by a part of a block shows.
    static constexpr std::uint32_t offsetInBlock = 17;

    explicit KROJACKTestLoopDevice(std::uint32_t spacing) : spacing_(spacing) {}
    KROJACKTestLoopDevice(const KROJACKTestLoopDevice&) = delete;
    KROJACKTestLoopDevice& operator=(const KROJACKTestLoopDevice&) = delete;
    ~KROJACKTestLoopDevice() {
        if (client_) {
            jack_client_close(client_);
        }
    }

    // Registers the ports and activates; impulses wait for startSending().
    bool open() {
        jack_status_t status{};
        client_ = jack_client_open(name, JackNoStartServer, &status);
        if (!client_) {
            return false;
        }
        const unsigned long flags = JackPortIsPhysical | JackPortIsTerminal;
        for (std::size_t channel = 0; channel < channels; ++channel) {
            const std::string number = std::to_string(channel + 1);
            capture_[channel] =
                jack_port_register(client_, ("capture_" + number).c_str(), JACK_DEFAULT_AUDIO_TYPE,
                                   JackPortIsOutput | flags, 0);
            playback_[channel] =
                jack_port_register(client_, ("playback_" + number).c_str(), JACK_DEFAULT_AUDIO_TYPE,
                                   JackPortIsInput | flags, 0);
            if (!capture_[channel] || !playback_[channel]) {
                return false;
            }
        }
        jack_set_process_callback(client_, process, this);
        return jack_activate(client_) == 0;
    }

    void startSending() { sending_.store(true); }

    // Frame times of the impulses sent and of those that came back, in order.
    std::vector<std::uint32_t> sent() const { return copy(sent_, sentCount_); }
    std::vector<std::uint32_t> received() const { return copy(received_, receivedCount_); }
    // Whether a returning impulse reached every playback channel alike.
    bool channelsAgreed() const { return channelsAgreed_.load(); }

private:
    using Times = std::array<std::uint32_t, capacity>;

    static std::vector<std::uint32_t> copy(const Times& times,
                                           const std::atomic<std::size_t>& count) {
        return {times.begin(), times.begin() + std::ptrdiff_t(count.load())};
    }

    static int process(jack_nframes_t frames, void* argument) {
        auto& self = *static_cast<KROJACKTestLoopDevice*>(argument);
        const jack_nframes_t blockStart = jack_last_frame_time(self.client_);
        self.listen(blockStart, frames);
        self.send(blockStart, frames);
        return 0;
    }

    void send(jack_nframes_t blockStart, jack_nframes_t frames) {
        const bool due =
            sending_.load() && sentCount_.load() < capacity &&
            (sentCount_.load() == 0 || blockStart - sent_[sentCount_.load() - 1] >= spacing_);
        for (jack_port_t* port : capture_) {
            auto* data = static_cast<float*>(jack_port_get_buffer(port, frames));
            std::memset(data, 0, frames * sizeof(float));
            if (due && offsetInBlock < frames) {
                data[offsetInBlock] = 1.0f;
            }
        }
        if (due && offsetInBlock < frames) {
            sent_[sentCount_.load()] = blockStart + offsetInBlock;
            sentCount_.fetch_add(1);
        }
    }

    void listen(jack_nframes_t blockStart, jack_nframes_t frames) {
        std::array<std::int64_t, channels> arrival{};
        for (std::size_t channel = 0; channel < channels; ++channel) {
            const auto* data =
                static_cast<const float*>(jack_port_get_buffer(playback_[channel], frames));
            arrival[channel] = -1;
            for (jack_nframes_t frame = 0; frame < frames; ++frame) {
                if (data[frame] > 0.5f) {
                    arrival[channel] = frame;
                    break;
                }
            }
        }
        if (arrival[0] < 0 || receivedCount_.load() >= capacity) {
            return;
        }
        for (const std::int64_t other : arrival) {
            if (other != arrival[0]) {
                channelsAgreed_.store(false);
            }
        }
        received_[receivedCount_.load()] = blockStart + std::uint32_t(arrival[0]);
        receivedCount_.fetch_add(1);
    }

    std::uint32_t spacing_;
    jack_client_t* client_ = nullptr;
    std::array<jack_port_t*, channels> capture_{};
    std::array<jack_port_t*, channels> playback_{};
    std::atomic<bool> sending_{false};
    std::atomic<bool> channelsAgreed_{true};
    Times sent_{};
    std::atomic<std::size_t> sentCount_{0};
    Times received_{};
    std::atomic<std::size_t> receivedCount_{0};
};
