#include "KROMixerAudioProcessor.h"

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KROMixerAudioProcessor, KROAudioProcessor)

bool KROMixerAudioProcessor::initializeForRender(KROErrorPtr* error) {
    const KROAudioConnection* const output = outputConnection();
    for (const auto& bus : inputBuses_) {
        if (KROAudioConnection* const input = bus->connection()) {
            input->conformToConnection(output);
        }
    }
    const auto channels = static_cast<std::uint32_t>(output ? output->numberOfChannels() : 0);
    inputBuffer_ = KROAudioBufferList::bufferListWithChannels(
        channels, output ? output->maxFrames() : 0, error);
    return inputBuffer_ != nullptr;
}

bool KROMixerAudioProcessor::uninitialize(KROErrorPtr* /*error*/) {
    inputBuffer_.reset();
    return true;
}

bool KROMixerAudioProcessor::reset(KROErrorPtr* /*error*/) {
    if (inputBuffer_) {
        inputBuffer_->clear();
    }
    return true;
}

void KROMixerAudioProcessor::render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                                    KROAudioStreamRenderInfo& info) {
    buffer.clear();
    if (!inputBuffer_ || !inputBuffer_->setFrames(buffer.frames())) {
        return;
    }
    for (const auto& bus : inputBuses_) {
        bus->render(*inputBuffer_, info);
        buffer.mixAudioBufferList(*inputBuffer_);
    }
}
