#include "KROSplitterAudioProcessor.h"

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KROSplitterAudioProcessor, KROAudioProcessor)

bool KROSplitterAudioProcessor::initializeForRender(KROErrorPtr* error) {
    if (isInitialized()) {
        return true;
    }
    const KROAudioConnection* const output =
        outputBuses_.empty() ? nullptr : outputBuses_.front()->connection();
    const auto channels = static_cast<std::uint32_t>(output ? output->numberOfChannels() : 0);
    buffer_ = KROAudioBufferList::bufferListWithChannels(channels, output ? output->maxFrames() : 0,
                                                         error);
    if (!buffer_) {
        return false;
    }
    if (KROAudioConnection* const input = inputConnection()) {
        input->conformToConnection(output);
    }
    return true;
}

bool KROSplitterAudioProcessor::initializeForInput(KROErrorPtr* /*error*/) {
    const KROAudioConnection* const input = inputConnection();
    for (const auto& bus : outputBuses_) {
        if (KROAudioConnection* const output = bus->connection()) {
            output->conformToConnection(input);
        }
    }
    return true;
}

bool KROSplitterAudioProcessor::uninitialize(KROErrorPtr* /*error*/) {
    buffer_.reset();
    return true;
}

bool KROSplitterAudioProcessor::reset(KROErrorPtr* /*error*/) {
    if (buffer_) {
        buffer_->clear();
    }
    return true;
}

void KROSplitterAudioProcessor::render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                                       KROAudioStreamRenderInfo& info) {
    if (!buffer_) {
        return;
    }
    const bool drivesTheSource = !outputBuses_.empty() && outputBuses_.front().get() == &bus;
    if (drivesTheSource && buffer_->setFrames(buffer.frames())) {
        if (KROAudioInputBus* const input = inputBus()) {
            input->render(*buffer_, info);
        }
    }
    buffer.copyBufferList(*buffer_);
}

void KROSplitterAudioProcessor::input(KROAudioBufferList& buffer, KROAudioInputBus& /*bus*/,
                                      KROAudioStreamRenderInfo& info) {
    for (const auto& bus : outputBuses_) {
        bus->input(buffer, info);
    }
}
