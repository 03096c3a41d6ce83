#include "KROAudioBufferList.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "KROVectorOps.h"

namespace {

// The ramp of scaleWithRampStart is made on the stack in blocks of this many
// floats, so that no render block of any size reaches the heap.
constexpr std::size_t kRampBlockFrames = 1024;

constexpr std::uint64_t kBytesPerFrame = sizeof(float);

NSLongRange framesToBytes(NSLongRange range) {
    return NSMakeLongRange(range.location * kBytesPerFrame, range.length * kBytesPerFrame);
}

} // namespace

bool KROAudioBufferList::initWithChannels(std::uint32_t channels, std::uint64_t frameCapacity,
                                          KROErrorPtr* error) {
    return initWithNumberOfBuffers(channels, frameCapacity * kBytesPerFrame, error);
}

std::shared_ptr<KROAudioBufferList>
KROAudioBufferList::bufferListWithChannels(std::uint32_t channels, std::uint64_t frameCapacity,
                                           KROErrorPtr* error) {
    auto list = std::make_shared<KROAudioBufferList>();
    return list->initWithChannels(channels, frameCapacity, error) ? list : nullptr;
}

std::shared_ptr<KROAudioBufferList>
KROAudioBufferList::bufferListWithBufferList(AudioBufferList* list, KROErrorPtr* error) {
    auto bufferList = std::make_shared<KROAudioBufferList>();
    return bufferList->initWithBufferList(list, error) ? bufferList : nullptr;
}

float* KROAudioBufferList::channel(std::uint32_t channel) {
    return static_cast<float*>(bufferAtIndex(channel));
}

const float* KROAudioBufferList::channel(std::uint32_t channel) const {
    return static_cast<const float*>(bufferAtIndex(channel));
}

bool KROAudioBufferList::setFrames(std::uint64_t frames, KROErrorPtr* error) {
    return setLength(frames * kBytesPerFrame, error);
}

float KROAudioBufferList::valueAtFrame(std::uint64_t frame, std::uint32_t channel) const {
    const float* samples = this->channel(channel);
    if (!samples || frame >= frameCapacity()) {
        return 0.0f;
    }
    return samples[frame];
}

void KROAudioBufferList::setValue(float value, std::uint64_t frame, std::uint32_t channel) {
    float* samples = this->channel(channel);
    if (samples && frame < frameCapacity()) {
        samples[frame] = value;
    }
}

NSLongRange KROAudioBufferList::rangeInsideFrames(NSLongRange range) const {
    return NSIntersectionLongRange(range, NSMakeLongRange(0, frames()));
}

float* KROAudioBufferList::channelForArithmetic(std::uint32_t channel) {
    return audioBufferList() ? this->channel(channel) : nullptr;
}

void KROAudioBufferList::clearRange(NSLongRange range) {
    for (std::uint32_t channel = 0; channel < numberOfChannels(); ++channel) {
        clearRange(range, channel);
    }
}

void KROAudioBufferList::clearRange(NSLongRange range, std::uint32_t channel) {
    float* samples = this->channel(channel);
    const NSLongRange inside = rangeInsideFrames(range);
    if (samples && inside.length != 0) {
        kro_vclr(samples + inside.location, inside.length);
    }
}

bool KROAudioBufferList::copyFrames(NSLongRange range, const KROAudioBufferList& source,
                                    std::uint64_t position, KROErrorPtr* error) {
    return copyRange(framesToBytes(range), source, position * kBytesPerFrame, error);
}

bool KROAudioBufferList::copyChannel(std::uint32_t sourceChannel, const KROAudioBufferList& source,
                                     std::uint32_t destinationChannel, KROErrorPtr* error) {
    return copyBufferAtIndex(sourceChannel, source, destinationChannel, error);
}

bool KROAudioBufferList::copyFrames(NSLongRange range, std::uint32_t sourceChannel,
                                    const KROAudioBufferList& source, std::uint64_t position,
                                    std::uint32_t destinationChannel, KROErrorPtr* error) {
    return copyRange(framesToBytes(range), sourceChannel, source, position * kBytesPerFrame,
                     destinationChannel, error);
}

bool KROAudioBufferList::mixAudioBufferList(const KROAudioBufferList& source, KROErrorPtr*) {
    const std::uint32_t channels = std::min(numberOfChannels(), source.numberOfChannels());
    const std::uint64_t count = std::min(frames(), source.frames());
    for (std::uint32_t index = 0; index < channels; ++index) {
        float* samples = channel(index);
        kro_vsma(source.channel(index), 1.0f, samples, samples, count);
    }
    return true;
}

void KROAudioBufferList::scale(float value) {
    scale(value, NSMakeLongRange(0, frames()));
}

void KROAudioBufferList::scale(float value, NSLongRange range) {
    for (std::uint32_t channel = 0; channel < numberOfChannels(); ++channel) {
        scale(value, channel, range);
    }
}

void KROAudioBufferList::scale(float value, std::uint32_t channel) {
    scale(value, channel, NSMakeLongRange(0, frames()));
}

void KROAudioBufferList::scale(float value, std::uint32_t channel, NSLongRange range) {
    float* samples = channelForArithmetic(channel);
    const NSLongRange inside = rangeInsideFrames(range);
    if (!samples || inside.length == 0) {
        return;
    }
    samples += inside.location;
    kro_vsmul(samples, value, samples, inside.length);
}

void KROAudioBufferList::scaleWithRampStart(float start, float end) {
    scaleWithRampStart(start, end, NSMakeLongRange(0, frames()));
}

void KROAudioBufferList::scaleWithRampStart(float start, float end, NSLongRange range) {
    for (std::uint32_t channel = 0; channel < numberOfChannels(); ++channel) {
        if (start == end) {
            scale(start, channel, range);
        } else {
            scaleWithRampStart(start, end, channel, range);
        }
    }
}

void KROAudioBufferList::scaleWithRampStart(float start, float end, std::uint32_t channel,
                                            NSLongRange range) {
    if (start == end) {
        scale(start, channel, range);
        return;
    }
    float* samples = channelForArithmetic(channel);
    const NSLongRange inside = rangeInsideFrames(range);
    if (!samples || inside.length == 0) {
        return;
    }
    samples += inside.location;
    const std::uint64_t count = inside.length;
    const float step = (end - start) / static_cast<float>(count);
    float ramp[kRampBlockFrames];
    for (std::uint64_t done = 0; done < count; done += kRampBlockFrames) {
        const std::size_t block = std::min<std::uint64_t>(kRampBlockFrames, count - done);
        kro_vramp(start, step, ramp, block, done);
        kro_vmul(samples + done, ramp, samples + done, block);
    }
}

void KROAudioBufferList::invert() {
    const std::uint64_t count = frames();
    for (std::uint32_t index = 0; index < numberOfChannels(); ++index) {
        if (float* samples = channel(index)) {
            kro_vneg(samples, samples, count);
        }
    }
}

void KROAudioBufferList::reverse() {
    reverseRange(NSMakeLongRange(0, frames()));
}

void KROAudioBufferList::reverseRange(NSLongRange range) {
    for (std::uint32_t channel = 0; channel < numberOfChannels(); ++channel) {
        reverseChannel(channel, range);
    }
}

void KROAudioBufferList::reverseChannel(std::uint32_t channel, NSLongRange range) {
    float* samples = channelForArithmetic(channel);
    const NSLongRange inside = rangeInsideFrames(range);
    if (samples && inside.length > 1) {
        kro_vrvrs(samples + inside.location, inside.length);
    }
}

float KROAudioBufferList::maximumOfChannel(std::uint32_t channel) const {
    const float* samples = this->channel(channel);
    return samples ? kro_maxv(samples, frames()) : 0.0f;
}

float KROAudioBufferList::maximum() const {
    float largest = -std::numeric_limits<float>::infinity();
    for (std::uint32_t channel = 0; channel < numberOfChannels(); ++channel) {
        largest = std::max(largest, maximumOfChannel(channel));
    }
    return largest;
}

float KROAudioBufferList::minimumOfChannel(std::uint32_t channel) const {
    const float* samples = this->channel(channel);
    return samples ? kro_minv(samples, frames()) : 0.0f;
}

float KROAudioBufferList::minimum() const {
    float smallest = std::numeric_limits<float>::infinity();
    for (std::uint32_t channel = 0; channel < numberOfChannels(); ++channel) {
        smallest = std::min(smallest, minimumOfChannel(channel));
    }
    return smallest;
}

float KROAudioBufferList::magnitudeOfChannel(std::uint32_t channel) const {
    const float* samples = this->channel(channel);
    return samples ? kro_maxmgv(samples, frames()) : 0.0f;
}

float KROAudioBufferList::magnitude() const {
    float largest = 0.0f;
    for (std::uint32_t channel = 0; channel < numberOfChannels(); ++channel) {
        largest = std::max(largest, magnitudeOfChannel(channel));
    }
    return largest;
}

float KROAudioBufferList::rmsOfChannel(std::uint32_t channel) const {
    const float* samples = this->channel(channel);
    return samples ? kro_rmsqv(samples, frames()) : 0.0f;
}

// The rms of the per-channel rms values: the root of the mean of their squares.
float KROAudioBufferList::rms() const {
    const std::uint32_t channels = numberOfChannels();
    if (channels == 0) {
        return 0.0f;
    }
    float sumOfSquares = 0.0f;
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
        const float value = rmsOfChannel(channel);
        sumOfSquares += value * value;
    }
    return std::sqrt(sumOfSquares / static_cast<float>(channels));
}

float KROAudioBufferList::averageOfChannel(std::uint32_t channel) const {
    const float* samples = this->channel(channel);
    // The mean of the magnitudes, not the signed mean: the level meaning of the
    // word, which meters and analysis rely on.
    return samples ? kro_meamgv(samples, frames()) : 0.0f;
}

float KROAudioBufferList::average() const {
    float sum = 0.0f;
    for (std::uint32_t channel = 0; channel < numberOfChannels(); ++channel) {
        sum += averageOfChannel(channel);
    }
    return sum / static_cast<float>(numberOfChannels());
}

float KROAudioBufferList::energyOfChannel(std::uint32_t channel) const {
    const float* samples = this->channel(channel);
    // A plain sum of squares, not divided by the frame count.
    return samples ? kro_svesq(samples, frames()) : 0.0f;
}

float KROAudioBufferList::energy() const {
    float sum = 0.0f;
    for (std::uint32_t channel = 0; channel < numberOfChannels(); ++channel) {
        sum += energyOfChannel(channel);
    }
    return sum / static_cast<float>(numberOfChannels());
}

std::int64_t KROAudioBufferList::frameGreaterThanOrEqualToMagnitude(float threshold,
                                                                    bool backwards) const {
    // The first channel with an answer wins, not the earliest frame across
    // channels: a hit in channel 0 at frame 1000 beats one in channel 1 at
    // frame 5.
    for (std::uint32_t channel = 0; channel < numberOfChannels(); ++channel) {
        const std::int64_t frame =
            frameGreaterThanOrEqualToMagnitude(threshold, channel, backwards);
        if (frame != notFound) {
            return frame;
        }
    }
    return notFound;
}

std::int64_t KROAudioBufferList::frameGreaterThanOrEqualToMagnitude(float threshold,
                                                                    std::uint32_t channel,
                                                                    bool backwards) const {
    const float* samples = this->channel(channel);
    if (!samples || threshold > magnitudeOfChannel(channel)) {
        return notFound;
    }
    // "Not below" rather than "at least", so that a NaN sample is a hit.
    const auto hits = [&](std::uint64_t frame) { return !(std::fabs(samples[frame]) < threshold); };
    const std::uint64_t count = frames();
    for (std::uint64_t step = 0; step < count; ++step) {
        const std::uint64_t frame = backwards ? count - 1 - step : step;
        if (hits(frame)) {
            return static_cast<std::int64_t>(frame);
        }
    }
    return notFound;
}
