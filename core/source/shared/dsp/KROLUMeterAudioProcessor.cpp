#include "KROLUMeterAudioProcessor.h"

#include <algorithm>
#include <cmath>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROClassRegistry.h"
#include "KROVectorOps.h"

// The weights and sums are rounded step by step, as written, so that every
// processor reads the same level.
#if defined(__clang__)
#pragma clang fp contract(off)
#elif defined(__GNUC__)
#pragma GCC optimize("fp-contract=off")
#endif

KRO_REGISTER_CLASS(KROLUMeterAudioProcessor, KROAudioProcessor)

namespace {

constexpr float surroundWeight = 1.41f;
constexpr double surroundWeightInDouble = 1.41;
// A block quieter than this is left out of the integrated reading.
constexpr float absoluteGate = -70.0f;
// The integrated reading keeps the blocks within this many LU of the mean.
constexpr double relativeGate = 10.0;
// LU are counted from -23 LUFS.
constexpr float referenceLoudness = 23.0f;
// Samples are taken as at most 2^32 (+192 dBFS), so that the weighted
// samples, their squares and their sums stay finite whatever arrives.
constexpr float inputLimit = 4294967296.0f;
// A filter memory this small is set to zero after each block, so that a tail
// decaying into silence does not go on into the slow subnormal numbers.
constexpr float silenceBelow = 1e-30f;

using Coefficients = KROLUMeterAudioProcessor::Coefficients;

// The memories of both biquads of one channel: x[n-1], x[n-2], y[n-1],
// y[n-2] of each, as floats.
struct Memories {
    float a[4];
    float b[4];
};

// One sample through one biquad: the sum in double on the float memories,
// the result rounded to float.
inline float biquad(const Coefficients& c, float x, float* m) {
    const double y = c[0] * double(x) + c[1] * double(m[0]) + c[2] * double(m[1]) -
                     c[3] * double(m[2]) - c[4] * double(m[3]);
    const auto result = static_cast<float>(y);
    m[1] = m[0];
    m[0] = x;
    m[3] = m[2];
    m[2] = result;
    return result;
}

// Both biquads over N channels in step, so that the processor overlaps their
// recursions.
template <int N>
void weigh(float* const* samples, Memories* memories, const Coefficients& shelf,
           const Coefficients& highPass, std::uint64_t frames) {
    for (std::uint64_t frame = 0; frame < frames; ++frame) {
        for (int k = 0; k < N; ++k) {
            const float shelved = biquad(shelf, samples[k][frame], memories[k].a);
            samples[k][frame] = biquad(highPass, shelved, memories[k].b);
        }
    }
}

} // namespace

bool KROLUMeterAudioProcessor::init(KROErrorPtr* error) {
    if (!KROAudioProcessor::init(error)) {
        return false;
    }
    for (int slot = 0; slot < slots; ++slot) {
        setSlotChannel(slot, slot < 2 ? slot : noChannel);
    }
    setMeasurementType(KROLUMeterMeasurementTypeShortTerm);
    return true;
}

double KROLUMeterAudioProcessor::sampleRate() const {
    const KROAudioConnection* connection = outputConnection();
    return connection ? connection->sampleRate() : 0.0;
}

std::uint64_t KROLUMeterAudioProcessor::framesOf(double seconds) const {
    const double frames = sampleRate() * seconds;
    // A rate that is not a positive number, or one beyond what a buffer can
    // hold, gives no frames: the meter is then inert.
    return frames >= 1.0 && frames < 1073741824.0 ? static_cast<std::uint64_t>(frames) : 0;
}

std::uint64_t KROLUMeterAudioProcessor::windowFrames() const {
    return accumulationBuffer_ ? accumulationBuffer_->frames() : 0;
}

void KROLUMeterAudioProcessor::setMeasurementType(const std::string& type) {
    if (type == measurementType_) {
        return;
    }
    measurementType_ = type;
    Mode mode = Mode::Other;
    if (type == KROLUMeterMeasurementTypeMomentary) {
        mode = Mode::Momentary;
    } else if (type == KROLUMeterMeasurementTypeShortTerm) {
        mode = Mode::ShortTerm;
    } else if (type == KROLUMeterMeasurementTypeIntegrated) {
        mode = Mode::Integrated;
    }
    mode_.store(mode, std::memory_order_relaxed);
    windowChangePending_.store(true, std::memory_order_release);
}

void KROLUMeterAudioProcessor::applyPendingMeasurementType() {
    if (windowChangePending_.exchange(false, std::memory_order_acquire)) {
        updateAccumulationBuffers();
    }
}

void KROLUMeterAudioProcessor::updateAccumulationBuffers() {
    if (!accumulationBuffer_) {
        return;
    }
    const bool shortTerm = mode_.load(std::memory_order_relaxed) == Mode::ShortTerm;
    accumulationBuffer_->setFrames(framesOf(shortTerm ? 3.0 : 0.4));
    accumulationBuffer_->clear();
    slotHoldsSound_.fill(false);
    accumulationBufferCursor_ = 0;
}

void KROLUMeterAudioProcessor::setLevels(float value) {
    actualLevel_ = value;
    level_.store(value, std::memory_order_relaxed);
}

void KROLUMeterAudioProcessor::releaseBuffers() {
    for (auto* buffer : {&filteredBuffer_, &accumulationBuffer_, &absoluteThresholdBuffer_,
                         &relativeThresholdBuffer_, &xa_, &ya_, &xb_, &yb_}) {
        buffer->reset();
    }
    slotHoldsSound_.fill(false);
    analysisFrames_ = 0;
}

bool KROLUMeterAudioProcessor::allocateBuffers(std::uint32_t channels, std::uint64_t maxFrames,
                                               KROErrorPtr* error) {
    const std::pair<std::shared_ptr<KROAudioBufferList>*, std::pair<std::uint32_t, std::uint64_t>>
        shapes[] = {
            {&xa_, {channels, 2}},
            {&ya_, {channels, 2}},
            {&xb_, {channels, 2}},
            {&yb_, {channels, 2}},
            {&filteredBuffer_, {channels, maxFrames}},
            {&accumulationBuffer_, {slots, framesOf(3.0)}},
            {&absoluteThresholdBuffer_, {slots + 1, gatingBlocks}},
            {&relativeThresholdBuffer_, {slots, gatingBlocks}},
        };
    for (const auto& [buffer, shape] : shapes) {
        *buffer = KROAudioBufferList::bufferListWithChannels(shape.first, shape.second, error);
        if (!*buffer) {
            releaseBuffers();
            return false;
        }
    }
    absoluteThresholdBuffer_->setRange({0, 0});
    relativeThresholdBuffer_->setRange({0, 0});
    return true;
}

void KROLUMeterAudioProcessor::designFilters(double rate) {
    // A high shelf of +4 dB at 1500 Hz with Q = 1 / sqrt(2), from
    // A = 10^(2/20); 1.5867737... is sqrt(A) * sqrt(2).
    {
        const double w = 9424.77796076938 / rate;
        const double s = std::sin(w);
        const double c = std::cos(w);
        const double p = 1.5867737153067336 * s;
        const double u = 2.2589254117941673 + 0.2589254117941673 * c;
        const double v = 2.2589254117941673 - 0.2589254117941673 * c;
        const double a0 = p + v;
        preFilter_ = {1.2589254117941673 * (p + u) / a0,
                      -2.5178508235883346 * (0.2589254117941673 + 2.2589254117941673 * c) / a0,
                      1.2589254117941673 * (u - p) / a0,
                      2 * (0.2589254117941673 - 2.2589254117941673 * c) / a0, (v - p) / a0};
    }
    // The revised low-frequency B-curve: a high-pass at 38.135 Hz, Q 0.50033,
    // with a gain of 1.00499.
    {
        const double w = 239.6122302906951 / rate;
        const double s = std::sin(w);
        const double c = std::cos(w);
        const double g = s / 1.000654074646642;
        const double a0 = 1 + g;
        const double b0 = 0.5 * (1 + c) / a0 * 1.004994898714703;
        rlbFilter_ = {b0, -(1 + c) / a0 * 1.004994898714703, b0, -2 * c / a0, (1 - g) / a0};
    }
}

bool KROLUMeterAudioProcessor::initializeForRender(KROErrorPtr* error) {
    KROAudioConnection* input = inputConnection();
    if (input) {
        input->conformToConnection(outputConnection());
    }
    releaseBuffers();
    windowChangePending_.store(false, std::memory_order_relaxed);
    setLevels(silentLevel);
    const std::uint64_t channels = input ? input->numberOfChannels() : 0;
    const std::uint64_t maxFrames = input ? input->maxFrames() : 0;
    if (maxFrames == 0 || channels == 0 || framesOf(0.1) == 0 || framesOf(3.0) == 0) {
        return true;
    }
    if (channels > std::numeric_limits<std::uint32_t>::max() ||
        !allocateBuffers(static_cast<std::uint32_t>(channels), maxFrames, error)) {
        return false;
    }
    designFilters(sampleRate());
    setLeftChannelIndex(0);
    setRightChannelIndex(1);
    setCenterChannelIndex(channels > 2 ? 2 : noChannel);
    setLeftSurroundChannelIndex(channels > 4 ? 3 : noChannel);
    setRightSurroundChannelIndex(channels > 4 ? 4 : noChannel);
    analysisFrames_ = framesOf(0.1);
    analysisCursor_ = 0;
    updateAccumulationBuffers();
    return true;
}

bool KROLUMeterAudioProcessor::uninitialize(KROErrorPtr* /*error*/) {
    setLevels(silentLevel);
    releaseBuffers();
    return true;
}

bool KROLUMeterAudioProcessor::reset(KROErrorPtr* /*error*/) {
    applyPendingMeasurementType();
    setLevels(silentLevel);
    analysisCursor_ = 0;
    for (auto* buffer : {&xa_, &ya_, &xb_, &yb_, &filteredBuffer_, &accumulationBuffer_}) {
        if (*buffer) {
            (*buffer)->clear();
        }
    }
    slotHoldsSound_.fill(false);
    accumulationBufferCursor_ = framesOf(0.1);
    for (auto* buffer : {&absoluteThresholdBuffer_, &relativeThresholdBuffer_}) {
        if (*buffer) {
            (*buffer)->clear();
            (*buffer)->setRange({0, 0});
        }
    }
    return true;
}

void KROLUMeterAudioProcessor::render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                                      KROAudioStreamRenderInfo& info) {
    if (KROAudioInputBus* bus = inputBus()) {
        bus->render(buffer, info);
    }
    if (!filteredBuffer_) {
        return;
    }
    applyPendingMeasurementType();
    const std::uint64_t frames = buffer.frames();
    if (frames > filteredBuffer_->frameCapacity()) {
        return;
    }
    filteredBuffer_->setFrames(frames);
    filterBlock(buffer, frames);
    if (analysisFrames_ != 0 && windowFrames() != 0) {
        accumulate(frames);
    }
    level_.store(actualLevel_, std::memory_order_relaxed);
}

void KROLUMeterAudioProcessor::filterBlock(const KROAudioBufferList& buffer, std::uint64_t frames) {
    const std::uint32_t channels = filteredBuffer_->numberOfChannels();
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
        float* const out = filteredBuffer_->channel(channel);
        const float* const in = buffer.channel(channel);
        for (std::uint64_t frame = 0; frame < frames; ++frame) {
            // A sample that is not a finite number is measured as silence, so
            // that it cannot stay in the filters until a reset.
            const float sample = in ? in[frame] : 0.0f;
            out[frame] = std::isfinite(sample) ? std::clamp(sample, -inputLimit, inputLimit) : 0.0f;
        }
    }
    for (std::uint32_t first = 0; first < channels; first += 2) {
        const int count = first + 1 < channels ? 2 : 1;
        float* samples[2] = {};
        Memories memories[2] = {};
        float* stored[2][4] = {};
        for (int k = 0; k < count; ++k) {
            const std::uint32_t channel = first + std::uint32_t(k);
            samples[k] = filteredBuffer_->channel(channel);
            stored[k][0] = xa_->channel(channel);
            stored[k][1] = ya_->channel(channel);
            stored[k][2] = xb_->channel(channel);
            stored[k][3] = yb_->channel(channel);
            memories[k] = {{stored[k][0][0], stored[k][0][1], stored[k][1][0], stored[k][1][1]},
                           {stored[k][2][0], stored[k][2][1], stored[k][3][0], stored[k][3][1]}};
        }
        if (count == 2) {
            weigh<2>(samples, memories, preFilter_, rlbFilter_, frames);
        } else {
            weigh<1>(samples, memories, preFilter_, rlbFilter_, frames);
        }
        for (int k = 0; k < count; ++k) {
            const float* const values[4] = {memories[k].a, memories[k].a + 2, memories[k].b,
                                            memories[k].b + 2};
            for (int list = 0; list < 4; ++list) {
                for (int i = 0; i < 2; ++i) {
                    const float value = values[list][i];
                    stored[k][list][i] = std::fabs(value) < silenceBelow ? 0.0f : value;
                }
            }
        }
    }
}

void KROLUMeterAudioProcessor::accumulate(std::uint64_t frames) {
    const std::uint64_t window = windowFrames();
    const std::uint64_t channels = filteredBuffer_->numberOfChannels();
    std::array<std::int64_t, slots> sources{};
    for (int slot = 0; slot < slots; ++slot) {
        sources[slot] = slotChannel(slot);
    }
    if (accumulationBufferCursor_ >= window) {
        accumulationBufferCursor_ = 0;
    }
    for (std::uint64_t done = 0; done < frames;) {
        const std::uint64_t piece = std::min(
            {frames - done, window - accumulationBufferCursor_, analysisFrames_ - analysisCursor_});
        for (int slot = 0; slot < slots; ++slot) {
            // One input channel may feed several slots; a slot with no
            // channel keeps what it holds.
            if (sources[slot] < 0 || std::uint64_t(sources[slot]) >= channels) {
                continue;
            }
            const float* from =
                filteredBuffer_->channel(static_cast<std::uint32_t>(sources[slot])) + done;
            std::copy(from, from + piece,
                      accumulationBuffer_->channel(static_cast<std::uint32_t>(slot)) +
                          accumulationBufferCursor_);
            slotHoldsSound_[slot] = true;
        }
        done += piece;
        accumulationBufferCursor_ += piece;
        if (accumulationBufferCursor_ == window) {
            accumulationBufferCursor_ = 0;
        }
        analysisCursor_ += piece;
        if (analysisCursor_ == analysisFrames_) {
            analyse();
            analysisCursor_ = 0;
        }
    }
}

void KROLUMeterAudioProcessor::analyse() {
    const std::uint64_t window = windowFrames();
    std::array<float, slots> meanSquares{};
    for (int slot = 0; slot < slots; ++slot) {
        // The window is read whole, silent until it has been filled once.
        meanSquares[slot] =
            slotHoldsSound_[slot]
                ? kro_measqv(accumulationBuffer_->channel(static_cast<std::uint32_t>(slot)), window)
                : 0.0f;
    }
    float sum = meanSquares[0] + meanSquares[1];
    sum = sum + meanSquares[2];
    sum = sum + surroundWeight * meanSquares[3];
    sum = sum + surroundWeight * meanSquares[4];
    float loudness = 10.0f * std::log10(sum) - 0.691f;
    if (loudness < silentLevel) {
        loudness = silentLevel;
    }
    switch (mode_.load(std::memory_order_relaxed)) {
    case Mode::Momentary:
    case Mode::ShortTerm:
        actualLevel_ = loudness + referenceLoudness;
        break;
    case Mode::Integrated:
        gate(loudness, meanSquares);
        break;
    case Mode::Other:
        break;
    }
}

namespace {

// 10 log10 of the weighted sum of the means of the first count entries of five
// channels, from the first given; the sum in double.
double weightedLoudness(const KROAudioBufferList& list, std::uint32_t first, std::uint64_t count) {
    double sum = 0.0;
    for (std::uint32_t slot = 0; slot < 5; ++slot) {
        const double mean = kro_meanv(list.channel(first + slot), count);
        sum += slot >= 3 ? mean * surroundWeightInDouble : mean;
    }
    return 10.0 * std::log10(sum) - 0.691;
}

} // namespace

void KROLUMeterAudioProcessor::gate(float loudness, const std::array<float, slots>& meanSquares) {
    if (loudness < absoluteGate) {
        return;
    }
    KROAudioBufferList& ring = *absoluteThresholdBuffer_;
    NSLongRange range = ring.range();
    const std::uint64_t position = range.location % gatingBlocks;
    ring.channel(0)[position] = loudness;
    for (std::uint32_t slot = 0; slot < slots; ++slot) {
        ring.channel(slot + 1)[position] = meanSquares[slot];
    }
    range.location += 1;
    ring.setRange(range);
    const std::uint64_t count = std::min<std::uint64_t>(range.location, gatingBlocks);
    const auto threshold = static_cast<float>(weightedLoudness(ring, 1, count) - relativeGate);

    KROAudioBufferList& kept = *relativeThresholdBuffer_;
    const float* const blockLoudness = ring.channel(0);
    std::array<const float*, slots> from{};
    std::array<float*, slots> to{};
    for (std::uint32_t slot = 0; slot < slots; ++slot) {
        from[slot] = ring.channel(slot + 1);
        to[slot] = kept.channel(slot);
    }
    std::uint64_t keptCount = 0;
    for (std::uint64_t block = 0; block < count; ++block) {
        if (blockLoudness[block] >= threshold) {
            for (std::uint32_t slot = 0; slot < slots; ++slot) {
                to[slot][keptCount] = from[slot][block];
            }
            ++keptCount;
        }
    }
    actualLevel_ = static_cast<float>(weightedLoudness(kept, 0, keptCount) + referenceLoudness);
}
