// A pass-through level meter. Audio flows on untouched, while each
// block moves one displayed level per channel by a named ballistic (a rise
// and a fall law) and notes the wall-clock time of any clip. A display polls
// level, levelOfChannel, isClipped and isClippedForChannel from its own
// thread.
//
// Parameter keys (valueForParameterKey / setValue): "ballistics" (string),
// "measurement" (string), "clipHoldLength" (number). A value of the wrong
// kind is ignored. There are no settings keys of its own.
//
// Threads: the levels and clip times are relaxed atomics written by the
// render (or input) thread and read by the display (DESIGN.md section 5), and
// so are the numbers that a ballistic or a measurement selects. The arrays
// are made and freed on the set-up thread, between polls.
#pragma once

#include <atomic>
#include <bit>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "KROAudioProcessor.h"

class KROLevelMeterAudioProcessor : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KROLevelMeterAudioProcessor)

public:
    // Wall-clock seconds since the reference date, 2001-01-01 00:00:00 UTC
    // (the platform's timeIntervalSinceReferenceDate).
    using Clock = std::function<double()>;

    // The level read with no array, the smallest normal float, bits
    // 0x00800000.
    static constexpr float noLevel = std::bit_cast<float>(0x00800000u);
    // The "aes17" factor, 3 dB, so that a full-scale sine reads 1.0.
    static constexpr double aes17Factor = 1.4125375446227544;

    static constexpr const char* ballisticsKey = "ballistics";
    static constexpr const char* measurementKey = "measurement";
    static constexpr const char* clipHoldLengthKey = "clipHoldLength";

    // One row of the ballistics table.
    struct Ballistic {
        const char* name;
        float riseAmount;
        float riseTime;
        float fallAmount;
        float fallTime;
        // Whether selecting the row writes holdTime; otherwise it is kept.
        bool setsHoldTime;
        float holdTime;
    };
    // The named ballistics, "vu" first: the empty name selects it.
    static const std::vector<Ballistic>& ballistics();

    // The system's wall clock, in seconds since the reference date.
    static double referenceDateNow();

    // Sets "vu", "peak" and 3.0 through setValue.
    bool init(KROErrorPtr* error = nullptr) override;
    // The input connection conforms to the output connection; the channel
    // count comes from the output connection; zeroed levels and clip times.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    // The output connection conforms to the input connection; the channel
    // count comes from the input connection; the same arrays.
    bool initializeForInput(KROErrorPtr* error = nullptr) override;
    // Frees both arrays; numberOfChannels 0.
    bool uninitialize(KROErrorPtr* error = nullptr) override;
    // Zeroes both arrays.
    bool reset(KROErrorPtr* error = nullptr) override;

    // Pulls the input, then measures.
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;
    // Measures, then passes the buffer on through the output bus.
    void input(KROAudioBufferList& buffer, KROAudioInputBus& bus,
               KROAudioStreamRenderInfo& info) override;

    std::optional<KROPropertyList> valueForParameterKey(const std::string& key) const override;
    void setValue(const KROPropertyList& value, const std::string& key) override;

    // One step of the law per channel, and the clip test: the level moves
    // exponentially toward the block's measure, so that after riseTime (or
    // fallTime) seconds only riseAmount (or fallAmount) of the distance is
    // left; a time of 0 jumps.
    void calculateLevelsForBuffer(const KROAudioBufferList& buffer);

    // The largest level; noLevel with no array, 0 with no channels.
    float level() const;
    // noLevel with no array or a bad channel.
    float levelOfChannel(std::uint64_t channel) const;
    // False with no array.
    bool isClipped() const;
    // False with no array or a bad channel. A clipHoldLength of 0 or more:
    // the clip is shown while now - clipTime is below it; negative: shown
    // from the first clip until reset.
    bool isClippedForChannel(std::uint64_t channel) const;
    // Wall-clock seconds of the channel's last clip, 0 for never or a bad
    // channel.
    double clipTimeOfChannel(std::uint64_t channel) const;

    std::uint64_t numberOfChannels() const {
        return numberOfChannels_.load(std::memory_order_relaxed);
    }
    // Seconds; negative means forever.
    double clipHoldLength() const { return clipHoldLength_.load(std::memory_order_relaxed); }
    void setClipHoldLength(double seconds) {
        clipHoldLength_.store(seconds, std::memory_order_relaxed);
    }
    const std::string& ballistic() const { return ballistic_; }
    // Stores the name and applies its row of the table; a name not in the
    // table keeps the earlier numbers. Set-up or host thread.
    void setBallistic(const std::string& name);
    const std::string& measurement() const { return measurement_; }
    // "peak" or "", "rms", "aes17"; any other name measures 0. Set-up or
    // host thread.
    void setMeasurement(const std::string& name);

    float riseAmount() const { return riseAmount_.load(std::memory_order_relaxed); }
    float riseTime() const { return riseTime_.load(std::memory_order_relaxed); }
    float fallAmount() const { return fallAmount_.load(std::memory_order_relaxed); }
    float fallTime() const { return fallTime_.load(std::memory_order_relaxed); }
    // Stored from the table and never applied to the levels: the three
    // "peakHold" rows differ in nothing else, and no hold stage is added.
    float holdTime() const { return holdTime_.load(std::memory_order_relaxed); }

    // The wall clock that the clip hold reads; none restores the system's.
    // Set-up thread: it is read on the render thread.
    void setClock(Clock clock) { clock_ = std::move(clock); }
    double now() const { return clock_ ? clock_() : referenceDateNow(); }

private:
    enum class Measurement : int { Peak, Rms, Aes17, Other };

    void allocateForChannels(std::uint64_t channels);
    void freeArrays();
    float measureOfChannel(const KROAudioBufferList& buffer, std::uint32_t channel,
                           float magnitude) const;
    void applyLaw(std::uint64_t channel, float measure, float seconds);

    std::atomic<std::uint64_t> numberOfChannels_{0};
    std::unique_ptr<std::atomic<float>[]> levels_;
    std::unique_ptr<std::atomic<double>[]> clipTimes_;
    std::atomic<double> clipHoldLength_{0.0};
    std::string ballistic_;
    std::atomic<float> riseAmount_{0.0f};
    std::atomic<float> fallAmount_{0.0f};
    std::atomic<float> holdTime_{0.0f};
    std::atomic<float> riseTime_{0.0f};
    std::atomic<float> fallTime_{0.0f};
    std::string measurement_;
    std::atomic<Measurement> measurementKind_{Measurement::Peak};
    Clock clock_;
};
