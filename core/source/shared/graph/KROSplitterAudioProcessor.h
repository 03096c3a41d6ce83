// Feeds any number of outputs from one input. On the pull path output bus 0
// drives the source, once for each block, into a buffer of the splitter's
// own, and every bus, 0 included, takes a copy of it: bus 0 must be pulled
// first in each block, or the other buses get the previous block's audio.
// A bus that asks with another length or channel count gets nothing and
// keeps its buffer.
//
// Because only bus 0 pulls upstream, a graph that loops back through a
// splitter (a feedback path through a mixer, say) cannot recurse into
// itself: the loop closes on a copy, never on a second pull that would wait
// for the locks the first one holds.
//
// On the push path the same buffer goes to each output in bus order, with no
// copy: a branch that changes it changes it for the branches after it.
#pragma once

#include <memory>

#include "KROAudioProcessor.h"

class KROAudioBufferList;

class KROSplitterAudioProcessor : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KROSplitterAudioProcessor)

public:
    std::uint64_t maximumNumberOfOutputBuses() const override { return 4294967295u; }

    // True at once when already initialised: the stream reaches a splitter
    // once for each of its outputs. Otherwise the buffer is made from the
    // first output connection, whose format the input connection takes.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    // Every output connection takes the input connection's format.
    bool initializeForInput(KROErrorPtr* error = nullptr) override;
    bool uninitialize(KROErrorPtr* error = nullptr) override;
    // Clears the buffer.
    bool reset(KROErrorPtr* error = nullptr) override;
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;
    void input(KROAudioBufferList& buffer, KROAudioInputBus& bus,
               KROAudioStreamRenderInfo& info) override;

private:
    std::shared_ptr<KROAudioBufferList> buffer_;
};
