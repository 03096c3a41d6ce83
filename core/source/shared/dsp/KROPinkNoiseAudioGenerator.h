// Pink noise by the Voss-McCartney row method: 19 octave rows of
// held random values and one white value summed per sample. Every instance
// and every channel draws from one process-wide seed, so channels are
// decorrelated and streams that run at once disturb each other's sequence;
// nothing depends on that sequence. It has no settings keys of its own.
#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstdint>
#include <memory>
#include <vector>

#include "KROAudioGenerator.h"

class KROPinkNoiseAudioGenerator : public KROAudioGenerator {
    KRO_DECLARE_CLASS(KROPinkNoiseAudioGenerator)

public:
    static constexpr int numberOfRows = 19;
    // 2 to the 19th, less one.
    static constexpr std::int32_t indexMask = 0x7ffff;
    // The seed of the process at its start.
    static constexpr std::int64_t initialRandSeed = 22222;
    // One tenth of 2^-23, written as its bits so every compiler yields the
    // same float.
    static constexpr float scale = std::bit_cast<float>(0x324ccccdu);

    // The state of one channel.
    struct Noise {
        std::array<std::int64_t, numberOfRows> rows{};
        std::int64_t runningSum = 0;
        std::int32_t index = 0;
        std::int32_t indexMask = 0;
    };

    // Allocates one record per channel of the output connection, rows, sum
    // and index zero and the mask 0x7ffff; succeeds. There is no reset: the
    // noise state runs on.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    // Frees the records; succeeds.
    bool uninitialize(KROErrorPtr* error = nullptr) override;
    // For each frame, for each channel: the index advances; unless it wraps
    // to 0, the row of its trailing zero bits draws anew; then a white value
    // is drawn and added to the rows' sum. Looks at neither the render info
    // nor the bus.
    // Channels without a record (a buffer wider than the connection, or no
    // initialisation) are cleared.
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;

    // The records; none before initialisation and after uninitialize.
    std::size_t numberOfNoiseRecords() const { return noise_.size(); }
    const Noise* noiseOfChannel(std::size_t channel) const {
        return channel < noise_.size() ? &noise_[channel] : nullptr;
    }

    // The process-wide seed, read by hosts and tests.
    static std::int64_t randSeed();
    // One step of the generator on a seed: the seed moves on and the drawn
    // value, a signed 24-bit number, is returned.
    static std::int64_t step(std::int64_t& seed) {
        // Wrapping 64-bit arithmetic, done unsigned so it is defined.
        seed =
            static_cast<std::int64_t>(static_cast<std::uint64_t>(seed) * 196314165u + 907633515u);
        return seed >> 40;
    }

private:
    void renderFrames(std::uint64_t frames, std::uint32_t channels);

    std::vector<Noise> noise_;
    // The buffer's channels during one block; sized at initialisation so
    // that the render path does not allocate.
    std::vector<float*> channelSamples_;
};
