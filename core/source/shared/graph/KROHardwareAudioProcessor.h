// The abstract head that stands for the platform's device head. A
// description names "KROHardwareAudioProcessor" and receives an object of
// the class registered as "KROOSXHardwareAudioProcessor", the
// device head of the platform, made with init:. Where no such class is
// registered the result is none, and a stream built from the description
// fails with no error stored.
#pragma once

#include "KROHeadAudioProcessor.h"

class KROHardwareAudioProcessor : public KROHeadAudioProcessor {
    KRO_DECLARE_CLASS(KROHardwareAudioProcessor)

public:
    // The name of the device head class that this class stands for.
    static constexpr const char* deviceHeadClassName = "KROOSXHardwareAudioProcessor";

    // On this very class: gives up the object under construction and answers
    // a new device head made with init(error), or none. A subclass (the device
    // head itself) is made as any processor is.
    std::shared_ptr<KROAudioProcessor> initReturningObject(KROErrorPtr* error = nullptr) override;
};
