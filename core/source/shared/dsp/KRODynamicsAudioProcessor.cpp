#include "KRODynamicsAudioProcessor.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KRODynamicsAudioProcessor, KROAudioProcessor)

namespace {

// log2(10) / 10, given as its bits so that every compiler yields the same
// float: dB to log2 of power.
constexpr float decibelsToLog2 = std::bit_cast<float>(0x3eaa152du);
// The table's input span in log2 of power: -96 dB to 0 dB.
constexpr float tableBottom = -31.89051055908203f;
constexpr float tableTop = 0.0f;
// The power filter's wavelength, 10 ms: a cutoff of 100 Hz.
constexpr float powerFilterWavelength = 0.01f;

std::int32_t saturated(std::uint64_t value) {
    return static_cast<std::int32_t>(
        std::min<std::uint64_t>(value, std::numeric_limits<std::int32_t>::max()));
}

int processCallback(void* context, float* const* obufs, std::int32_t /*channels*/,
                    std::int32_t /*frames*/, std::int64_t /*position*/) {
    static_cast<KRODynamicsAudioProcessor*>(context)->didProcess(obufs);
    return 0;
}

} // namespace

KRODynamicsAudioProcessor::~KRODynamicsAudioProcessor() {
    destroyEngine();
}

bool KRODynamicsAudioProcessor::setSettings(const KROPropertyList& settings, KROErrorPtr* error) {
    if (!KROAudioProcessor::setSettings(settings, error)) {
        return false;
    }
    auto readBoolean = [&](const char* key, auto setter) {
        if (const KROPropertyList* value = settings.objectForKey(key);
            value && (value->isBoolean() || value->isNumber())) {
            (this->*setter)(value->boolValue());
        }
    };
    auto readNumber = [&](const char* key, auto setter) {
        if (const KROPropertyList* value = settings.objectForKey(key);
            value && (value->isNumber() || value->isBoolean())) {
            (this->*setter)(value->doubleValue());
        }
    };
    readBoolean("enabled", &KRODynamicsAudioProcessor::setEnabled);
    readBoolean("compressionEnabled", &KRODynamicsAudioProcessor::setCompressionEnabled);
    readBoolean("expansionEnabled", &KRODynamicsAudioProcessor::setExpansionEnabled);
    readNumber("inputScalar", &KRODynamicsAudioProcessor::setInputScalar);
    readNumber("outputScalar", &KRODynamicsAudioProcessor::setOutputScalar);
    readNumber("compressionThreshold", &KRODynamicsAudioProcessor::setCompressionThreshold);
    readNumber("expansionThreshold", &KRODynamicsAudioProcessor::setExpansionThreshold);
    readNumber("compressionSlope", &KRODynamicsAudioProcessor::setCompressionSlope);
    readNumber("expansionSlope", &KRODynamicsAudioProcessor::setExpansionSlope);
    readNumber("attackTime", &KRODynamicsAudioProcessor::setAttackTime);
    readNumber("releaseTime", &KRODynamicsAudioProcessor::setReleaseTime);
    return true;
}

KROPropertyList KRODynamicsAudioProcessor::settings() const {
    KROPropertyList settings = KROAudioProcessor::settings();
    settings.setObjectForKey("enabled", enabled());
    settings.setObjectForKey("inputScalar", double(inputScalar()));
    settings.setObjectForKey("outputScalar", double(outputScalar()));
    settings.setObjectForKey("compressionEnabled", compressionEnabled_);
    settings.setObjectForKey("expansionEnabled", expansionEnabled_);
    settings.setObjectForKey("compressionThreshold", double(compressionThreshold_));
    settings.setObjectForKey("expansionThreshold", double(expansionThreshold_));
    settings.setObjectForKey("compressionSlope", double(compressionSlope_));
    settings.setObjectForKey("expansionSlope", double(expansionSlope_));
    settings.setObjectForKey("attackTime", attackTime_);
    settings.setObjectForKey("releaseTime", releaseTime_);
    return settings;
}

void KRODynamicsAudioProcessor::destroyEngine() {
    if (kx_dsp_gdp_t* engine = processor_.exchange(nullptr)) {
        kx_dsp_gdp__destroy(engine);
    }
}

bool KRODynamicsAudioProcessor::initializeForRender(KROErrorPtr* /*error*/) {
    KROAudioConnection* input = inputConnection();
    const KROAudioConnection* output = outputConnection();
    if (input) {
        input->conformToConnection(output);
    }
    destroyEngine();
    const std::uint64_t channels = output ? output->numberOfChannels() : 0;
    kx_dsp_gdp_t* engine = nullptr;
    if (kx_dsp_gdp__create(output ? output->sampleRate() : 0.0, saturated(channels),
                           saturated(output ? output->maxFrames() : 0), delayFrames, tableEntries,
                           &engine) != 0) {
        return false;
    }
    channelPointers_.assign(channels, nullptr);
    kx_dsp_gdp__set_output_destination(engine, processCallback, this);
    kx_dsp_gdp__set_input_power_lpf_wavelength_sec(engine, powerFilterWavelength);
    processor_.store(engine);
    update();
    return true;
}

bool KRODynamicsAudioProcessor::uninitialize(KROErrorPtr* /*error*/) {
    destroyEngine();
    return true;
}

std::uint64_t KRODynamicsAudioProcessor::latency() const {
    return shouldProcess() ? std::uint64_t(delayFrames / 2) : 0;
}

float KRODynamicsAudioProcessor::transferredLevel(float x) const {
    float y = x;
    if (compressionEnabled_ && compressionSlope_ != 1.0f && compressionThreshold_ < x) {
        y = (x - compressionThreshold_) / compressionSlope_ + compressionThreshold_;
    }
    // Tested second, so that where the two overlap the expander wins.
    if (expansionEnabled_ && expansionSlope_ != 1.0f && x < expansionThreshold_) {
        y = expansionThreshold_ - expansionSlope_ * (expansionThreshold_ - x);
    }
    // A slope of 0 or an infinite threshold gives no level at all: such a
    // setting leaves the level alone rather than drive the gain to infinity.
    return std::isfinite(y) ? y : x;
}

void KRODynamicsAudioProcessor::update() {
    kx_dsp_gdp_t* engine = processor_.load();
    if (!engine) {
        return;
    }
    std::array<float, tableEntries> table{};
    bool changes = false;
    for (std::int32_t i = 0; i < tableEntries; ++i) {
        const auto x = static_cast<float>(i - (tableEntries - 1));
        const float y = transferredLevel(x);
        changes = changes || y != x;
        table[std::size_t(i)] = y * decibelsToLog2;
    }
    kx_dsp_gdp__begin_settings(engine);
    kx_dsp_gdp__set_power_transfer_function(engine, tableBottom, tableTop, table.data(),
                                            tableEntries);
    kx_dsp_gdp__set_attack_time_constant_sec(engine, static_cast<float>(attackTime_));
    kx_dsp_gdp__set_release_time_constant_sec(engine, static_cast<float>(releaseTime_));
    kx_dsp_gdp__end_settings(engine);
    shouldProcess_.store(changes);
}

void KRODynamicsAudioProcessor::render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                                       KROAudioStreamRenderInfo& info) {
    if (KROAudioInputBus* bus = inputBus()) {
        bus->render(buffer, info);
    }
    if (!enabled()) {
        return;
    }
    buffer.scale(inputScalar());
    kx_dsp_gdp_t* engine = processor_.load(std::memory_order_relaxed);
    const std::uint32_t channels = buffer.numberOfChannels();
    const std::uint64_t frames = buffer.frames();
    if (shouldProcess() && engine && channels == channelPointers_.size() && frames > 0 &&
        frames <= std::uint64_t(std::numeric_limits<std::int32_t>::max())) {
        for (std::uint32_t channel = 0; channel < channels; ++channel) {
            channelPointers_[channel] = buffer.channel(channel);
        }
        processingBuffer_ = &buffer;
        kx_dsp_gdp__process_input_samples(engine, channelPointers_.data(),
                                          static_cast<std::int32_t>(channels),
                                          static_cast<std::int32_t>(frames), 0);
        processingBuffer_ = nullptr;
    }
    buffer.scale(outputScalar());
}

void KRODynamicsAudioProcessor::didProcess(const float* const* obufs) {
    if (!processingBuffer_) {
        return;
    }
    const std::uint32_t channels = processingBuffer_->numberOfChannels();
    const std::uint64_t bytes = processingBuffer_->length();
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
        std::memcpy(processingBuffer_->channel(channel), obufs[channel], bytes);
    }
}

float KRODynamicsAudioProcessor::currentScalar() const {
    if (!shouldProcess()) {
        return 1.0f;
    }
    const kx_dsp_gdp_t* engine = processor_.load(std::memory_order_relaxed);
    return engine ? kx_dsp_gdp__gain(engine) : 0.0f;
}
