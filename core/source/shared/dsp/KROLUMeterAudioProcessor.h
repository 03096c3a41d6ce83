// A loudness meter of programme material, on the pull path: audio goes on
// unchanged while up to five channels (left, right, centre, left surround,
// right surround) are K-weighted by two biquads, their mean squares taken over
// a window every 100 ms, weighted (1.41 for the surrounds) and summed. The
// reading `level` is in LU relative to -23 LUFS: 0 is -23 LUFS.
//
// "momentary" reads a 0.4 s window, "shortTerm" a 3 s window. "integrated"
// gates each 0.4 s block at -70 LUFS, keeps the blocks that pass in a ring of
// the last 3000 (300 s of audible programme: a reading covers at most the last
// five minutes, on purpose), and averages those within 10 LU of the ring's
// mean. Which input channel feeds which of the five slots is a property of its
// own; initializeForRender sets it from the channel count.
//
// Threads: rendering owns the measuring state. level, the channel indices and
// the measurement type may be read and set from other threads at any time; a
// new measurement type clears the window at the start of the next block, or at
// once when the meter is reset or initialised.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>

#include "KROAudioProcessor.h"

class KROAudioBufferList;

inline constexpr const char KROLUMeterMeasurementTypeMomentary[] = "momentary";
inline constexpr const char KROLUMeterMeasurementTypeShortTerm[] = "shortTerm";
inline constexpr const char KROLUMeterMeasurementTypeIntegrated[] = "integrated";

class KROLUMeterAudioProcessor : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KROLUMeterAudioProcessor)

public:
    // A slot's channel index that matches no channel.
    static constexpr std::int64_t noChannel = std::numeric_limits<std::int64_t>::max();
    // The reading before any analysis, and of silence in integrated mode.
    static constexpr float silentLevel = -96.0f;
    // Gating blocks kept for the integrated reading.
    static constexpr std::uint64_t gatingBlocks = 3000;

    // Measures "shortTerm".
    bool init(KROErrorPtr* error = nullptr) override;
    // Designs the two filters for the output connection's rate and allocates
    // every buffer; with no frames or no channels the meter stays inert.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    // Frees every buffer; the levels go back to -96.
    bool uninitialize(KROErrorPtr* error = nullptr) override;
    // Back to the start of a programme: filters, window and ring cleared,
    // levels -96. The window's write position restarts 100 ms in, unlike a
    // change of measurement type, which restarts it at 0: kept, as readings
    // after a reset depend on it.
    bool reset(KROErrorPtr* error = nullptr) override;
    // Pulls the input, then measures it.
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;

    // Kept for the host's display, which chooses a scale by it; the meter
    // does not read it.
    const std::string& scaleType() const { return scaleType_; }
    void setScaleType(const std::string& type) { scaleType_ = type; }

    const std::string& measurementType() const { return measurementType_; }
    // "momentary", "shortTerm" or "integrated"; any other name measures
    // nothing. A change clears the window; the integrated ring is kept, so a
    // return to "integrated" continues its gating history.
    void setMeasurementType(const std::string& type);
    // Sets the window's length for the measurement type, clears it and
    // restarts its write position. Set-up or render thread.
    void updateAccumulationBuffers();

    // LU relative to -23 LUFS, as of the end of the last block.
    float level() const { return level_.load(std::memory_order_relaxed); }

    std::int64_t leftChannelIndex() const { return slotChannel(0); }
    std::int64_t rightChannelIndex() const { return slotChannel(1); }
    std::int64_t centerChannelIndex() const { return slotChannel(2); }
    std::int64_t leftSurroundChannelIndex() const { return slotChannel(3); }
    std::int64_t rightSurroundChannelIndex() const { return slotChannel(4); }
    void setLeftChannelIndex(std::int64_t index) { setSlotChannel(0, index); }
    void setRightChannelIndex(std::int64_t index) { setSlotChannel(1, index); }
    void setCenterChannelIndex(std::int64_t index) { setSlotChannel(2, index); }
    void setLeftSurroundChannelIndex(std::int64_t index) { setSlotChannel(3, index); }
    void setRightSurroundChannelIndex(std::int64_t index) { setSlotChannel(4, index); }

    // The two biquads as designed by initializeForRender: b0, b1, b2, a1, a2,
    // each divided by a0.
    using Coefficients = std::array<double, 5>;
    const Coefficients& preFilterCoefficients() const { return preFilter_; }
    const Coefficients& rlbCoefficients() const { return rlbFilter_; }

    // Frames between two analyses and of the current window; 0 when inert.
    std::uint64_t analysisFrames() const { return analysisFrames_; }
    std::uint64_t windowFrames() const;

private:
    enum class Mode : int { Momentary, ShortTerm, Integrated, Other };
    static constexpr int slots = 5;

    std::int64_t slotChannel(int slot) const {
        return slotChannels_[slot].load(std::memory_order_relaxed);
    }
    void setSlotChannel(int slot, std::int64_t index) {
        slotChannels_[slot].store(index, std::memory_order_relaxed);
    }
    double sampleRate() const;
    std::uint64_t framesOf(double seconds) const;
    void releaseBuffers();
    bool allocateBuffers(std::uint32_t channels, std::uint64_t maxFrames, KROErrorPtr* error);
    void designFilters(double sampleRate);
    void applyPendingMeasurementType();
    void setLevels(float value);
    void filterBlock(const KROAudioBufferList& buffer, std::uint64_t frames);
    void accumulate(std::uint64_t frames);
    void analyse();
    void gate(float loudness, const std::array<float, slots>& meanSquares);

    std::string scaleType_;
    std::string measurementType_;
    std::atomic<Mode> mode_{Mode::Other};
    std::atomic<bool> windowChangePending_{false};
    std::array<std::atomic<std::int64_t>, slots> slotChannels_{};
    std::atomic<float> level_{silentLevel};
    float actualLevel_ = silentLevel;

    std::shared_ptr<KROAudioBufferList> filteredBuffer_;
    std::shared_ptr<KROAudioBufferList> accumulationBuffer_;
    std::shared_ptr<KROAudioBufferList> absoluteThresholdBuffer_;
    std::shared_ptr<KROAudioBufferList> relativeThresholdBuffer_;
    std::shared_ptr<KROAudioBufferList> xa_, ya_, xb_, yb_;
    std::uint64_t accumulationBufferCursor_ = 0;
    std::uint64_t analysisCursor_ = 0;
    std::uint64_t analysisFrames_ = 0;
    // Whether a slot was written since the window was last cleared: a slot
    // that never was holds zeros and needs no sum.
    std::array<bool, slots> slotHoldsSound_{};
    Coefficients preFilter_{};
    Coefficients rlbFilter_{};
};
