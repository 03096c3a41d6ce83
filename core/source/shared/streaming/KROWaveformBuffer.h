// What a display reads of an overview: for each channel a positive and a
// negative curve over display columns, as floats. Channel c has its positive
// curve in buffer 2c and its negative curve in buffer 2c + 1 of the list;
// frames here are columns, not audio frames.
#pragma once

#include <cstdint>
#include <memory>

#include "KROAudioBufferList.h"

class KROWaveformBuffer : public KROObject {
    KRO_DECLARE_CLASS(KROWaveformBuffer)

public:
    bool initWithChannels(std::uint32_t channels, std::uint64_t frameCapacity,
                          KROErrorPtr* error = nullptr);

    std::uint32_t numberOfChannels() const { return buffer_->numberOfBuffers() / 2; }
    void clear() { buffer_->clear(); }
    void scale(float value) { buffer_->scale(value); }
    // Multiplies every curve, column by column, by the same array of frames
    // scalars.
    void scaleWithScalars(const float* scalars);
    std::uint64_t frames() const { return buffer_->frames(); }
    bool setFrames(std::uint64_t frames, KROErrorPtr* error = nullptr) {
        return buffer_->setFrames(frames, error);
    }
    std::uint64_t frameCapacity() const { return buffer_->frameCapacity(); }
    NSLongRange range() const { return buffer_->range(); }
    void setRange(NSLongRange range) { buffer_->setRange(range); }

    float* positiveValuesForChannel(std::uint32_t channel) { return buffer_->channel(2 * channel); }
    float* negativeValuesForChannel(std::uint32_t channel) {
        return buffer_->channel(2 * channel + 1);
    }
    float positiveValueAtFrame(std::uint64_t frame, std::uint32_t channel = 0) const {
        return buffer_->valueAtFrame(frame, 2 * channel);
    }
    float negativeValueAtFrame(std::uint64_t frame, std::uint32_t channel = 0) const {
        return buffer_->valueAtFrame(frame, 2 * channel + 1);
    }
    void setPositiveValue(float value, std::uint64_t frame, std::uint32_t channel = 0) {
        buffer_->setValue(value, frame, 2 * channel);
    }
    void setNegativeValue(float value, std::uint64_t frame, std::uint32_t channel = 0) {
        buffer_->setValue(value, frame, 2 * channel + 1);
    }

    KROAudioBufferList& buffer() { return *buffer_; }

private:
    std::shared_ptr<KROAudioBufferList> buffer_;
};
