// The timing record that goes with each pull or push. In the class
// tree it derives from KROAudioProcessor but uses nothing of it: it is built
// with plain construction, has no buses and is never part
// of a graph. Written only by its head on the render or input thread and read
// by processors during the block: no lock, no allocation.
#pragma once

#include <array>
#include <cstdint>

#include "KROAudioProcessor.h"

class KROConductorAudioProcessor;

class KROAudioStreamRenderInfo : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KROAudioStreamRenderInfo)

public:
    // The depth of the sample-time stack.
    static constexpr std::size_t sampleTimeStackDepth = 16;

    // init: realtime true, all else zero.
    KROAudioStreamRenderInfo() = default;

    // "sampleTime: %qi" with the current time.
    std::string description() const override;

    // The entry at the cursor.
    std::int64_t sampleTime() const { return sampleTime_[sampleTimeCursor_]; }
    void setSampleTime(std::int64_t sampleTime) { sampleTime_[sampleTimeCursor_] = sampleTime; }
    // The limit of sixteen levels is part of the record, so that nesting
    // costs no allocation: at the top (cursor 15) the value is dropped and
    // nothing changes, while the matching pop still pops.
    void pushSampleTime(std::int64_t sampleTime) {
        if (sampleTimeCursor_ < sampleTimeStackDepth - 1) {
            sampleTime_[++sampleTimeCursor_] = sampleTime;
        }
    }
    // At the bottom nothing changes; the popped value is not returned.
    void popSampleTime() {
        if (sampleTimeCursor_ > 0) {
            --sampleTimeCursor_;
        }
    }
    std::uint64_t sampleTimeCursor() const { return sampleTimeCursor_; }

    std::uint64_t hostTime() const { return hostTime_; }
    void setHostTime(std::uint64_t hostTime) { hostTime_ = hostTime; }
    bool isRunning() const { return running_; }
    void setRunning(bool running) { running_ = running; }
    bool isRealtime() const { return realtime_; }
    void setRealtime(bool realtime) { realtime_ = realtime; }
    bool isReverse() const { return reverse_; }
    void setReverse(bool reverse) { reverse_ = reverse; }
    // Back reference to the conductor on this chain, none unless
    // one is present.
    KROConductorAudioProcessor* conductor() const { return conductor_; }
    void setConductor(KROConductorAudioProcessor* conductor) { conductor_ = conductor; }

private:
    std::uint64_t hostTime_ = 0;
    std::array<std::int64_t, sampleTimeStackDepth> sampleTime_{};
    std::uint64_t sampleTimeCursor_ = 0;
    bool running_ = false;
    bool realtime_ = true;
    bool reverse_ = false;
    KROConductorAudioProcessor* conductor_ = nullptr;
};
