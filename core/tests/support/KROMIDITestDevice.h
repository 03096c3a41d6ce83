// A MIDI device for tests: a JACK client with physical MIDI ports "out" and
// "in", as hardware shows on the server. It sends a script of byte chunks at
// chosen cycles and offsets once told to, and logs what it receives with the
// frame it arrived at.
#pragma once

#include <jack/jack.h>
#include <jack/midiport.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

// A chunk of bytes the device sends as one event, cycles after it starts.
struct KROMIDITestChunk {
    std::uint32_t cycle;
    std::uint32_t offset;
    std::vector<std::uint8_t> bytes;
};

struct KROMIDITestArrival {
    std::vector<std::uint8_t> bytes;
    std::uint32_t frame;
    std::uint32_t offset;
};

class KROMIDITestDevice {
public:
    static constexpr const char* name = "kro-test-midi";

    explicit KROMIDITestDevice(std::vector<KROMIDITestChunk> script = {})
        : script_(std::move(script)) {
        jack_status_t status{};
        client_ = jack_client_open(name, JackNoStartServer, &status);
        const auto port = [&](const char* portName, unsigned long direction) {
            return jack_port_register(client_, portName, JACK_DEFAULT_MIDI_TYPE,
                                      direction | JackPortIsPhysical | JackPortIsTerminal, 0);
        };
        if (client_) {
            out_ = port("out", JackPortIsOutput);
            in_ = port("in", JackPortIsInput);
        }
        open_ = out_ && in_ && jack_set_process_callback(client_, process, this) == 0 &&
                jack_activate(client_) == 0;
    }
    ~KROMIDITestDevice() {
        if (client_) {
            jack_client_close(client_);
        }
    }

    bool isOpen() const { return open_; }
    void startSending() { sending_.store(true); }
    bool doneSending() const { return sent_.load() == script_.size(); }
    // The frame each chunk went out at.
    std::vector<std::uint32_t> sentFrames() const {
        return {sentFrames_.begin(), sentFrames_.begin() + std::ptrdiff_t(sent_.load())};
    }
    std::vector<KROMIDITestArrival> arrivals() const {
        const std::lock_guard guard(arrivalLock_);
        return arrivals_;
    }
    std::size_t arrivalCount() const {
        const std::lock_guard guard(arrivalLock_);
        return arrivals_.size();
    }
    // Whether a cycle of the device held the frame: a loaded dummy server
    // skips cycles, and what was due in one goes at the start of the next.
    bool sawFrame(std::uint32_t frame) const {
        const std::lock_guard guard(arrivalLock_);
        return std::any_of(cycleStarts_.begin(), cycleStarts_.end(), [&](std::uint32_t start) {
            return start <= frame && frame - start < jack_get_buffer_size(client_);
        });
    }

private:
    static int process(jack_nframes_t frames, void* argument) {
        auto& self = *static_cast<KROMIDITestDevice*>(argument);
        const jack_nframes_t now = jack_last_frame_time(self.client_);
        void* out = jack_port_get_buffer(self.out_, frames);
        jack_midi_clear_buffer(out);
        if (self.sending_.load()) {
            while (self.sent_.load() < self.script_.size() &&
                   self.script_[self.sent_.load()].cycle <= self.cycle_) {
                const KROMIDITestChunk& chunk = self.script_[self.sent_.load()];
                jack_midi_event_write(out, chunk.offset, chunk.bytes.data(), chunk.bytes.size());
                self.sentFrames_[self.sent_.load()] = now + chunk.offset;
                self.sent_.fetch_add(1);
            }
            ++self.cycle_;
        }
        // The test's own client: it may lock, the layer under test may not.
        void* in = jack_port_get_buffer(self.in_, frames);
        const std::lock_guard guard(self.arrivalLock_);
        self.cycleStarts_.push_back(now);
        for (std::uint32_t index = 0; index < jack_midi_get_event_count(in); ++index) {
            jack_midi_event_t event{};
            jack_midi_event_get(&event, in, index);
            self.arrivals_.push_back(
                {std::vector<std::uint8_t>(event.buffer, event.buffer + event.size),
                 now + event.time, event.time});
        }
        return 0;
    }

    std::vector<KROMIDITestChunk> script_;
    jack_client_t* client_ = nullptr;
    jack_port_t* out_ = nullptr;
    jack_port_t* in_ = nullptr;
    bool open_ = false;
    std::atomic<bool> sending_{false};
    std::uint32_t cycle_ = 0;
    std::atomic<std::size_t> sent_{0};
    std::array<std::uint32_t, 64> sentFrames_{};
    mutable std::mutex arrivalLock_;
    std::vector<KROMIDITestArrival> arrivals_;
    std::vector<std::uint32_t> cycleStarts_;
};
