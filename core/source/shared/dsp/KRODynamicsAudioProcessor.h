// A linked-channel compressor and expander on the pull path, built on the
// kx_dsp_gdp engine: thresholds and slopes make a table from -96 dB to 0 dB
// of input power, and the engine follows it with a look-ahead of 256 frames.
// With neither feature changing any level the engine is left out and the
// block is only scaled by the input and output scalars.
//
// Settings keys: "enabled", "compressionEnabled", "expansionEnabled"
// (booleans); "inputScalar", "outputScalar", "compressionThreshold",
// "expansionThreshold" (dB), "compressionSlope", "expansionSlope" (ratios),
// "attackTime", "releaseTime" (seconds) (numbers).
//
// Threads: the host sets the properties and commits thresholds, slopes and
// times with update(), from any thread while rendering runs; a frame of the
// engine sees either all of an update or none of it. enabled and the scalars
// take effect at the next block. currentScalar may be read from a display.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "KROAudioProcessor.h"
#include "kx_dsp_gdp.h"

class KRODynamicsAudioProcessor : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KRODynamicsAudioProcessor)

public:
    // The engine's FIR length; the audio is delayed by half of it.
    static constexpr std::int32_t delayFrames = 512;
    // Table entries, one for each dB from -96 to 0.
    static constexpr std::int32_t tableEntries = 97;

    ~KRODynamicsAudioProcessor() override;

    bool setSettings(const KROPropertyList& settings, KROErrorPtr* error = nullptr) override;
    KROPropertyList settings() const override;

    // Makes the engine for the output connection's rate, channels and block
    // size (its frame), then commits the settings. False, with no error, when
    // the engine cannot be made.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    bool uninitialize(KROErrorPtr* error = nullptr) override;
    // 256 frames while the engine is in use, else 0.
    std::uint64_t latency() const override;

    // Builds the table from the thresholds and slopes and commits it with the
    // attack and release times. Does nothing before initializeForRender.
    void update();

    // Pulls the input; unless disabled, scales it, runs it through the engine
    // and scales it again. A block of the engine's frame length comes back
    // within the same call, 256 frames late; a shorter block stays as it was
    // until the engine completes a frame.
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;
    // Copies the engine's frame into the block in hand.
    void didProcess(const float* const* obufs);

    // The engine's linear gain at the start of its last frame; 1 when the
    // engine is not in use, 0 without an engine.
    float currentScalar() const;

    bool enabled() const { return enabled_.load(std::memory_order_relaxed); }
    void setEnabled(bool value) { enabled_.store(value, std::memory_order_relaxed); }
    float inputScalar() const { return inputScalar_.load(std::memory_order_relaxed); }
    void setInputScalar(float value) { inputScalar_.store(value, std::memory_order_relaxed); }
    float outputScalar() const { return outputScalar_.load(std::memory_order_relaxed); }
    void setOutputScalar(float value) { outputScalar_.store(value, std::memory_order_relaxed); }
    bool shouldProcess() const { return shouldProcess_.load(std::memory_order_relaxed); }

    bool compressionEnabled() const { return compressionEnabled_; }
    void setCompressionEnabled(bool value) { compressionEnabled_ = value; }
    float compressionThreshold() const { return compressionThreshold_; }
    void setCompressionThreshold(float decibels) { compressionThreshold_ = decibels; }
    float compressionSlope() const { return compressionSlope_; }
    void setCompressionSlope(float ratio) { compressionSlope_ = ratio; }
    bool expansionEnabled() const { return expansionEnabled_; }
    void setExpansionEnabled(bool value) { expansionEnabled_ = value; }
    float expansionThreshold() const { return expansionThreshold_; }
    void setExpansionThreshold(float decibels) { expansionThreshold_ = decibels; }
    float expansionSlope() const { return expansionSlope_; }
    void setExpansionSlope(float ratio) { expansionSlope_ = ratio; }
    double attackTime() const { return attackTime_; }
    void setAttackTime(double seconds) { attackTime_ = seconds; }
    double releaseTime() const { return releaseTime_; }
    void setReleaseTime(double seconds) { releaseTime_ = seconds; }

    // The output level in dB for an input level in dB, as the table holds it
    // at each whole dB from -96 to 0.
    float transferredLevel(float decibels) const;

private:
    void destroyEngine();

    std::atomic<kx_dsp_gdp_t*> processor_{nullptr};
    std::atomic<bool> enabled_{true};
    std::atomic<bool> shouldProcess_{false};
    std::atomic<float> inputScalar_{1.0f};
    std::atomic<float> outputScalar_{1.0f};
    bool compressionEnabled_ = false;
    bool expansionEnabled_ = false;
    float compressionThreshold_ = -12.0f;
    float expansionThreshold_ = -36.0f;
    float compressionSlope_ = 1.0f;
    float expansionSlope_ = 1.0f;
    double attackTime_ = 0.01;
    double releaseTime_ = 0.1;
    // The block in hand, set only during render.
    KROAudioBufferList* processingBuffer_ = nullptr;
    std::vector<const float*> channelPointers_;
};
