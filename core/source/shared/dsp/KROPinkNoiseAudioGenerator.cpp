#include "KROPinkNoiseAudioGenerator.h"

#include <algorithm>
#include <exception>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KROPinkNoiseAudioGenerator, KROAudioGenerator)

namespace {

// Shared by every instance and every channel of the process,
// starts at 22222 and is never reset. Racy between streams by design; an
// atomic only so that the race is defined.
std::atomic<std::int64_t> sharedRandSeed{KROPinkNoiseAudioGenerator::initialRandSeed};

} // namespace

std::int64_t KROPinkNoiseAudioGenerator::randSeed() {
    return sharedRandSeed.load(std::memory_order_relaxed);
}

bool KROPinkNoiseAudioGenerator::initializeForRender(KROErrorPtr* /*error*/) {
    const KROAudioConnection* connection = outputConnection();
    const std::uint64_t channels = connection ? connection->numberOfChannels() : 0;
    Noise fresh;
    fresh.indexMask = indexMask;
    // Initialisation cannot fail: without memory for an absurd
    // channel count the generator has no records and renders silence.
    try {
        noise_.assign(channels, fresh);
        channelSamples_.assign(channels, nullptr);
    } catch (const std::exception&) {
        uninitialize();
    }
    return true;
}

bool KROPinkNoiseAudioGenerator::uninitialize(KROErrorPtr* /*error*/) {
    noise_.clear();
    noise_.shrink_to_fit();
    channelSamples_.clear();
    channelSamples_.shrink_to_fit();
    return true;
}

void KROPinkNoiseAudioGenerator::render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                                        KROAudioStreamRenderInfo& /*info*/) {
    const std::uint32_t bufferChannels = buffer.numberOfChannels();
    const auto channels =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(bufferChannels, noise_.size()));
    for (std::uint32_t channel = channels; channel < bufferChannels; ++channel) {
        buffer.clearChannel(channel);
    }
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
        channelSamples_[channel] = buffer.channel(channel);
    }
    renderFrames(buffer.frames(), channels);
}

void KROPinkNoiseAudioGenerator::renderFrames(std::uint64_t frames, std::uint32_t channels) {
    if (channels == 0 || frames == 0) {
        return;
    }
    // The block runs on a local copy of the shared seed, written back at its
    // end: on one thread the sequence of draws is the same as with the
    // global itself, and nothing relies on more between threads.
    std::int64_t seed = sharedRandSeed.load(std::memory_order_relaxed);
    for (std::uint64_t frame = 0; frame < frames; ++frame) {
        for (std::uint32_t channel = 0; channel < channels; ++channel) {
            Noise& noise = noise_[channel];
            noise.index = (noise.index + 1) & noise.indexMask;
            // At index 0 no row changes and no draw is made.
            if (noise.index != 0) {
                const int row = std::countr_zero(static_cast<std::uint32_t>(noise.index));
                const std::int64_t value = step(seed);
                noise.runningSum += value - noise.rows[static_cast<std::size_t>(row)];
                noise.rows[static_cast<std::size_t>(row)] = value;
            }
            const std::int64_t white = step(seed);
            if (float* samples = channelSamples_[channel]) {
                samples[frame] = static_cast<float>(white + noise.runningSum) * scale;
            }
        }
    }
    sharedRandSeed.store(seed, std::memory_order_relaxed);
}
