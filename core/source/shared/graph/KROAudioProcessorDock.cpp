#include "KROAudioProcessorDock.h"

#include "KROAudioConnection.h"
#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KROAudioProcessorDock, KROAudioProcessor)

void KROAudioProcessorDock::setProcessor(std::shared_ptr<KROAudioProcessor> processor) {
    // Kept as it stands: the dock's own field. It bites only for an empty
    // dock initialised as a wire; a docked processor can be exchanged while
    // the stream is initialised, and the newcomer is not initialised here.
    if (initialized_) {
        return;
    }
    if (processor == processor_) {
        return;
    }
    // A dock cannot hold itself: it would own itself and lose its buses.
    if (processor.get() == this) {
        return;
    }
    processor_ = std::move(processor);
    if (processor_) {
        processor_->dock(*this);
        return;
    }
    // Empty again: the same two buses make the dock a wire.
    if (KROAudioInputBus* const bus = inputBus()) {
        bus->setDestination(this);
    }
    if (KROAudioOutputBus* const bus = outputBus()) {
        bus->setSource(this);
    }
}

bool KROAudioProcessorDock::initializeForRender(KROErrorPtr* /*error*/) {
    if (KROAudioConnection* const connection = inputConnection()) {
        connection->conformToConnection(outputConnection());
    }
    return true;
}

bool KROAudioProcessorDock::initializeForInput(KROErrorPtr* /*error*/) {
    if (KROAudioConnection* const connection = outputConnection()) {
        connection->conformToConnection(inputConnection());
    }
    return true;
}

bool KROAudioProcessorDock::isInitialized() const {
    return processor_ ? processor_->isInitialized() : initialized_;
}

void KROAudioProcessorDock::setInitialized(bool initialized) {
    if (processor_) {
        processor_->setInitialized(initialized);
    } else {
        initialized_ = initialized;
    }
}

bool KROAudioProcessorDock::uninitialize(KROErrorPtr* error) {
    return processor_ ? processor_->uninitialize(error) : true;
}

bool KROAudioProcessorDock::reset(KROErrorPtr* error) {
    return processor_ ? processor_->reset(error) : true;
}

std::uint64_t KROAudioProcessorDock::latency() const {
    return processor_ ? processor_->latency() : 0;
}

void KROAudioProcessorDock::render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                                   KROAudioStreamRenderInfo& info) {
    if (KROAudioInputBus* const bus = inputBus()) {
        bus->render(buffer, info);
    }
}

void KROAudioProcessorDock::input(KROAudioBufferList& buffer, KROAudioInputBus& /*bus*/,
                                  KROAudioStreamRenderInfo& info) {
    if (KROAudioOutputBus* const bus = outputBus()) {
        bus->input(buffer, info);
    }
}
