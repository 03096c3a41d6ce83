// A connection, the edge that joins one output bus to one input bus
// and holds the format of the audio that crosses it. Owned by the stream; its
// two ends are not owned.
//
// The names of the ends are crossed on purpose, and descriptions name them
// so: seen from the connection, audio comes in at its input, the upstream
// KROAudioOutputBus, and leaves at its output, the downstream
// KROAudioInputBus. So setInput stores into outputBus and setOutput into
// inputBus.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "KROObject.h"

class KROAudioBufferList;
class KROAudioInputBus;
class KROAudioOutputBus;
class KROAudioStreamRenderInfo;

class KROAudioConnection : public KROObject {
    KRO_DECLARE_CLASS(KROAudioConnection)

public:
    KROAudioConnection() = default;
    KROAudioConnection(const KROAudioConnection&) = delete;
    KROAudioConnection& operator=(const KROAudioConnection&) = delete;
    // Clears the connection reference of a bus that still names this one.
    ~KROAudioConnection() override;

    const std::string& identifier() const { return identifier_; }
    void setIdentifier(std::string identifier) { identifier_ = std::move(identifier); }

    double sampleRate() const { return sampleRate_.load(std::memory_order_relaxed); }
    void setSampleRate(double sampleRate) {
        sampleRate_.store(sampleRate, std::memory_order_relaxed);
    }
    std::uint64_t numberOfChannels() const {
        return numberOfChannels_.load(std::memory_order_relaxed);
    }
    void setNumberOfChannels(std::uint64_t channels) {
        numberOfChannels_.store(channels, std::memory_order_relaxed);
    }
    std::uint64_t maxFrames() const { return maxFrames_.load(std::memory_order_relaxed); }
    void setMaxFrames(std::uint64_t frames) { maxFrames_.store(frames, std::memory_order_relaxed); }

    // The downstream end.
    KROAudioInputBus* inputBus() const { return inputBus_.load(std::memory_order_relaxed); }
    // The upstream end.
    KROAudioOutputBus* outputBus() const { return outputBus_.load(std::memory_order_relaxed); }
    // Crossed on purpose. setInput stores the upstream
    // bus into outputBus.
    void setInput(KROAudioOutputBus* bus) { outputBus_.store(bus, std::memory_order_relaxed); }
    // Crossed on purpose. setOutput stores the
    // downstream bus into inputBus.
    void setOutput(KROAudioInputBus* bus) { inputBus_.store(bus, std::memory_order_relaxed); }

    bool active() const { return active_.load(std::memory_order_relaxed); }
    // Returns only when no crossing is in progress; once it has returned with
    // false no further audio crosses. The flag is read first outside the lock
    // and an unchanged value does nothing.
    void setActive(bool active);

    // Copies sampleRate, numberOfChannels and maxFrames from the connection
    // given; from none it writes zeros. Nothing negotiates or converts.
    void conformToConnection(const KROAudioConnection* connection);
    // Zeros the format: every non-empty buffer then fails the channel test,
    // so a cleared connection passes nothing and clears nothing.
    void clear();

    // Under activeLock for the whole upstream render: inactive, the buffer
    // is cleared; a buffer whose channels differ or whose frames pass
    // maxFrames is left exactly as it came.
    void render(KROAudioBufferList& buffer, KROAudioStreamRenderInfo& info);
    // Under activeLock: passes the buffer on only when active and of the
    // connection's format; otherwise nothing happens, not even a clear.
    void input(KROAudioBufferList& buffer, KROAudioStreamRenderInfo& info);

    std::string description() const override;

private:
    bool passes(const KROAudioBufferList& buffer) const;

    std::string identifier_;
    std::atomic<double> sampleRate_{0.0};
    std::atomic<std::uint64_t> numberOfChannels_{0};
    std::atomic<std::uint64_t> maxFrames_{0};
    std::atomic<KROAudioInputBus*> inputBus_{nullptr};
    std::atomic<KROAudioOutputBus*> outputBus_{nullptr};
    std::atomic<bool> active_{true};
    std::mutex activeLock_;
};
