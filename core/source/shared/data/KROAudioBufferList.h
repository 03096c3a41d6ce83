// A KROBufferList read as non-interleaved channels of 32-bit floats, one frame
// of one channel being 4 bytes, with the sample arithmetic of the processors.
// Every range here is in frames. Nothing but construction allocates or locks,
// so everything else may run on the render thread.
//
// Operations are named by their first keyword; the types tell every overload
// apart:
//   copyFrames:ofAudioBufferList:toPosition:error:  copyFrames(range, source, position)
//   copyFrames:ofChannel:ofAudioBufferList:toPosition:ofChannel:error:
//                                     copyFrames(range, channel, source, position, channel)
//   scale:channel:  scale(value, channel);  scale:range:  scale(value, range)
#pragma once

#include <cstdint>
#include <limits>
#include <memory>

#include "KROBufferList.h"

class KROAudioBufferList : public KROBufferList {
    KRO_DECLARE_CLASS(KROAudioBufferList)

public:
    // The result of the threshold search when no frame qualifies.
    static constexpr std::int64_t notFound = std::numeric_limits<std::int64_t>::max();

    // initWithNumberOfBuffers with a capacity of frameCapacity * 4 bytes.
    bool initWithChannels(std::uint32_t channels, std::uint64_t frameCapacity,
                          KROErrorPtr* error = nullptr);

    static std::shared_ptr<KROAudioBufferList> bufferListWithChannels(std::uint32_t channels,
                                                                      std::uint64_t frameCapacity,
                                                                      KROErrorPtr* error = nullptr);
    static std::shared_ptr<KROAudioBufferList>
    bufferListWithBufferList(AudioBufferList* list, KROErrorPtr* error = nullptr);

    std::uint32_t numberOfChannels() const { return numberOfBuffers(); }
    // The channel's samples; none at or past the count.
    float* channel(std::uint32_t channel);
    const float* channel(std::uint32_t channel) const;
    std::uint64_t frames() const { return length() / sizeof(float); }
    bool setFrames(std::uint64_t frames, KROErrorPtr* error = nullptr);
    std::uint64_t frameCapacity() const { return capacity() / sizeof(float); }

    // Bounded by the capacity, not the current length: callers read and write
    // the tail of a short last block. Outside, a read gives 0 and a write does
    // nothing.
    float valueAtFrame(std::uint64_t frame) const { return valueAtFrame(frame, 0); }
    float valueAtFrame(std::uint64_t frame, std::uint32_t channel) const;
    void setValue(float value, std::uint64_t frame) { setValue(value, frame, 0); }
    void setValue(float value, std::uint64_t frame, std::uint32_t channel);

    void clearChannel(std::uint32_t channel) { clearBufferAtIndex(channel); }
    // Overrides the byte form: here the range is in frames.
    void clearRange(NSLongRange range) override;
    // Intersected with frames; the channel is not checked.
    void clearRange(NSLongRange range, std::uint32_t channel);

    bool copyFrames(NSLongRange range, const KROAudioBufferList& source, std::uint64_t position,
                    KROErrorPtr* error = nullptr);
    bool copyChannel(std::uint32_t sourceChannel, const KROAudioBufferList& source,
                     std::uint32_t destinationChannel, KROErrorPtr* error = nullptr);
    bool copyFrames(NSLongRange range, std::uint32_t sourceChannel,
                    const KROAudioBufferList& source, std::uint64_t position,
                    std::uint32_t destinationChannel, KROErrorPtr* error = nullptr);

    // Adds the source into the receiver over the common channels and frames.
    // Always true.
    bool mixAudioBufferList(const KROAudioBufferList& source, KROErrorPtr* error = nullptr);

    void fadeIn() { scaleWithRampStart(0.0f, 1.0f); }
    void fadeOut() { scaleWithRampStart(1.0f, 0.0f); }

    void scale(float value);
    void scale(float value, NSLongRange range);
    void scale(float value, std::uint32_t channel);
    // Does nothing for a missing channel or memory; the range is cut to frames.
    void scale(float value, std::uint32_t channel, NSLongRange range);

    void scaleWithRampStart(float start, float end);
    void scaleWithRampStart(float start, float end, NSLongRange range);
    // The last frame of the range gets start + (n - 1) * step, one step short
    // of end: hosts chain ramps block by block and rely on it, and a fade-out
    // leaves its last frame at 1/n. The ramp lives on the stack, never on the
    // heap.
    void scaleWithRampStart(float start, float end, std::uint32_t channel, NSLongRange range);

    void invert();
    void reverse();
    void reverseRange(NSLongRange range);
    void reverseChannel(std::uint32_t channel, NSLongRange range);

    // Statistics over the current frames; a missing channel gives 0.
    float maximum() const;
    float maximumOfChannel(std::uint32_t channel) const;
    float minimum() const;
    float minimumOfChannel(std::uint32_t channel) const;
    float magnitude() const;
    float magnitudeOfChannel(std::uint32_t channel) const;
    float rms() const;
    float rmsOfChannel(std::uint32_t channel) const;
    float average() const;
    float averageOfChannel(std::uint32_t channel) const;
    float energy() const;
    float energyOfChannel(std::uint32_t channel) const;

    // The first frame whose magnitude is not below the threshold (a NaN sample
    // counts), else notFound.
    std::int64_t frameGreaterThanOrEqualToMagnitude(float threshold, bool backwards) const;
    std::int64_t frameGreaterThanOrEqualToMagnitude(float threshold, std::uint32_t channel,
                                                    bool backwards) const;

private:
    // The part of range inside location 0, length frames.
    NSLongRange rangeInsideFrames(NSLongRange range) const;
    // The channel's samples when the list, the channel and its memory exist.
    float* channelForArithmetic(std::uint32_t channel);
};
