#include "KROWaveformBuffer.h"

#include "KROVectorOps.h"

bool KROWaveformBuffer::initWithChannels(std::uint32_t channels, std::uint64_t frameCapacity,
                                         KROErrorPtr* error) {
    auto buffer = std::make_shared<KROAudioBufferList>();
    if (!buffer->initWithNumberOfBuffers(2 * channels, frameCapacity * sizeof(float), error)) {
        return false;
    }
    buffer_ = std::move(buffer);
    return true;
}

void KROWaveformBuffer::scaleWithScalars(const float* scalars) {
    for (std::uint32_t curve = 0; curve < buffer_->numberOfBuffers(); ++curve) {
        float* values = buffer_->channel(curve);
        kro_vmul(values, scalars, values, frames());
    }
}
