#include "KROSineWaveAudioGenerator.h"

#include <cmath>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KROSineWaveAudioGenerator, KROAudioGenerator)

bool KROSineWaveAudioGenerator::init(KROErrorPtr* error) {
    if (!KROAudioGenerator::init(error)) {
        return false;
    }
    setFrequency(defaultFrequency);
    lastPhase_ = 0.0f;
    return true;
}

bool KROSineWaveAudioGenerator::initializeForRender(KROErrorPtr* /*error*/) {
    lastPhase_ = 0.0f;
    return true;
}

bool KROSineWaveAudioGenerator::reset(KROErrorPtr* /*error*/) {
    lastPhase_ = 0.0f;
    return true;
}

double KROSineWaveAudioGenerator::outputSampleRate() const {
    const KROAudioConnection* connection = outputConnection();
    return connection ? connection->sampleRate() : 0.0;
}

float KROSineWaveAudioGenerator::advancedPhase(float lastPhase, std::uint64_t frames,
                                               double sampleRate, float frequency) {
    const double cycles = (static_cast<double>(frames) / sampleRate) * frequency;
    // Kept: only the fractional cycles are added and the sum is never
    // wrapped, so lastPhase climbs without bound; the samples depend on it.
    const double phase = lastPhase + (cycles - std::floor(cycles)) * twoPi;
    const auto result = static_cast<float>(phase);
    return std::isfinite(result) ? result : lastPhase;
}

void KROSineWaveAudioGenerator::render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                                       KROAudioStreamRenderInfo& /*info*/) {
    buffer.clear();
    const float frequency = this->frequency();
    const double sampleRate = outputSampleRate();
    const double step = static_cast<double>(frequency) * twoPi / sampleRate;
    const double phase = lastPhase_;
    const std::uint64_t frames = buffer.frames();
    if (float* samples = buffer.channel(0)) {
        for (std::uint64_t i = 0; i < frames; ++i) {
            samples[i] = static_cast<float>(std::sin(static_cast<double>(i) * step + phase));
        }
    }
    // All channels are the same: channel 0 copied into each of the others.
    for (std::uint32_t channel = 1; channel < buffer.numberOfChannels(); ++channel) {
        buffer.copyChannel(0, buffer, channel);
    }
    // The phase update reads the frequency afresh.
    lastPhase_ = advancedPhase(lastPhase_, frames, sampleRate, this->frequency());
}
