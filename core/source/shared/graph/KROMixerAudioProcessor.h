// Sums any number of inputs into one output, at unity gain, with no clamp
// and no division by the number of inputs. Each input is pulled in bus order
// into a buffer of the mixer's own, made at initialisation, and added into
// the output; rendering allocates nothing and takes no lock of its own.
// A mixer cannot stand on an input chain.
//
// The input buffer is not cleared between buses: a bus whose connection
// refuses the buffer (a format mismatch) leaves the previous bus's samples
// in it, and they are mixed a second time. Kept: that is how every refused
// pull behaves, and graphs rely on a refused pull leaving a buffer alone.
#pragma once

#include <memory>

#include "KROAudioProcessor.h"

class KROAudioBufferList;

class KROMixerAudioProcessor : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KROMixerAudioProcessor)

public:
    std::uint64_t maximumNumberOfInputBuses() const override { return 4294967295u; }

    // Every input connection takes the output connection's format; the
    // input buffer is made from it, and a failure there is the result.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    bool uninitialize(KROErrorPtr* error = nullptr) override;
    // Clears the input buffer.
    bool reset(KROErrorPtr* error = nullptr) override;
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;

private:
    std::shared_ptr<KROAudioBufferList> inputBuffer_;
};
