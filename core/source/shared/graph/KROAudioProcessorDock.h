// A slot in a graph into which a processor can be put and taken
// out. An empty dock is a wire in both directions. A docked processor takes
// over the dock's two bus objects (KROAudioProcessor::dock), so the walks and
// the audio reach it directly; the stream's initialised test, uninitialize
// and reset reach it through the dock's forwarding. The docked processor is
// not a member of the stream's processors. Dock operations other than the
// forwarders run on the set-up thread; exchanging a processor while
// rendering is protected by nothing here.
#pragma once

#include <memory>

#include "KROAudioProcessor.h"

class KROAudioProcessorDock : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KROAudioProcessorDock)

public:
    // The docked processor (owned) or none.
    const std::shared_ptr<KROAudioProcessor>& processor() const { return processor_; }
    // Does nothing while the dock's own field says initialised (an empty
    // dock initialised as a wire) or when given the present processor.
    // Otherwise a new processor takes over the dock's buses, and none makes
    // the dock a wire again; a processor that leaves keeps the bus objects.
    void setProcessor(std::shared_ptr<KROAudioProcessor> processor);

    // Conform the input connection to the output connection, and the other
    // way round. True.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    bool initializeForInput(KROErrorPtr* error = nullptr) override;

    // Forwarded to the docked processor when there is one.
    bool isInitialized() const override;
    void setInitialized(bool initialized) override;
    bool uninitialize(KROErrorPtr* error = nullptr) override;
    bool reset(KROErrorPtr* error = nullptr) override;
    std::uint64_t latency() const override;

    // An empty dock is a wire: the same buffer and info go on.
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;
    void input(KROAudioBufferList& buffer, KROAudioInputBus& bus,
               KROAudioStreamRenderInfo& info) override;

private:
    std::shared_ptr<KROAudioProcessor> processor_;
};
