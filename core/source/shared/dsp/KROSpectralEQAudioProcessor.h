// A linear-phase equaliser: the enabled bands multiply into one curve of
// gains on n/2 + 1 bins (n = 2^resolution), and each channel runs through a
// koq filter designed from it. The output lags the input by half of
// n * maximumQuality frames while the curve is not flat; a flat curve passes
// the audio untouched and undelayed.
//
// Settings keys: "enabled" (boolean), "resolution", "quality" (numbers) and
// "bands" (an array of band properties; unknown band classes are skipped).
//
// Threads: the host edits bands and commits them with update(), from one
// host thread while rendering runs; each channel's filter swaps under its
// own lock, so a channel's block sees one curve whole. resolution, maximumQuality and quality
// take effect at the next initialize.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "KROAudioProcessor.h"
#include "KROSpectralEQAudioProcessorBand.h"
#include "koq.h"

class KROSpectralEQAudioProcessor : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KROSpectralEQAudioProcessor)

public:
    // The resolutions a filter can be made at.
    static constexpr std::uint64_t minimumResolution = 1;
    static constexpr std::uint64_t maximumResolution = 20;

    bool setSettings(const KROPropertyList& settings, KROErrorPtr* error = nullptr) override;
    KROPropertyList settings() const override;

    // Conforms the input to the output, then initialize.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    // One filter per channel of the input at resolution and maximumQuality,
    // set to quality, then update. Fails with code 1 when an input's channels
    // differ from the output's, or a filter cannot be made (a resolution
    // outside 1 .. 20).
    bool initialize(KROErrorPtr* error = nullptr);
    bool uninitialize(KROErrorPtr* error = nullptr) override;
    // Drops the filters' history by building them again.
    bool reset(KROErrorPtr* error = nullptr) override;
    // 0 while the curve is flat; otherwise floor(n * maximumQuality / 2),
    // one frame more than the filter's true delay of hmax: the figure hosts
    // have always been given.
    std::uint64_t latency() const override;

    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;

    // Multiplies the enabled bands into requestedScalars at the output's
    // rate, designs every filter from it, and reads actualScalars back.
    void update();

    void addBand(const std::shared_ptr<KROSpectralEQAudioProcessorBand>& band);
    void removeBand(const KROSpectralEQAudioProcessorBand& band);
    const std::vector<std::shared_ptr<KROSpectralEQAudioProcessorBand>>& bands() const {
        return bands_;
    }

    // n/2 + 1 gains from bin 0 to Nyquist; empty before initialize.
    const std::vector<float>& requestedScalars() const { return requestedScalars_; }
    const std::vector<float>& actualScalars() const { return actualScalars_; }

    bool enabled() const { return enabled_.load(std::memory_order_relaxed); }
    void setEnabled(bool enabled) { enabled_.store(enabled, std::memory_order_relaxed); }
    bool shouldProcess() const { return shouldProcess_.load(std::memory_order_relaxed); }
    std::uint64_t resolution() const { return resolution_; }
    void setResolution(std::uint64_t resolution) { resolution_ = resolution; }
    float quality() const { return quality_; }
    void setQuality(float quality) { quality_ = quality; }
    float maximumQuality() const { return maximumQuality_; }
    void setMaximumQuality(float quality) { maximumQuality_ = quality; }
    // The channels' filters, for inspection.
    const std::vector<std::shared_ptr<koq>>& eqs() const { return eqs_; }

private:
    std::atomic<bool> enabled_{true};
    std::atomic<bool> shouldProcess_{false};
    std::uint64_t resolution_ = 14;
    float quality_ = 1.0f;
    float maximumQuality_ = 1.0f;
    std::vector<std::shared_ptr<koq>> eqs_;
    std::vector<std::shared_ptr<KROSpectralEQAudioProcessorBand>> bands_;
    std::vector<float> requestedScalars_;
    std::vector<float> actualScalars_;
};
