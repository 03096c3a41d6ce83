// The base of every node that makes sound from nothing. It has no
// input bus: maximumNumberOfInputBuses is 0.
#pragma once

#include "KROAudioProcessor.h"

class KROAudioGenerator : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KROAudioGenerator)

public:
    // Kept as it stands: does not go through the inherited init, so a
    // generator has no default channel configuration unless its settings
    // give one. One output bus of the literal class KROAudioOutputBus (not
    // outputBusClass) and empty automations; no input bus, and parameters and
    // channelConfigurations stay absent.
    bool init(KROErrorPtr* error = nullptr) override;

    std::uint64_t maximumNumberOfInputBuses() const override { return 0; }
};
