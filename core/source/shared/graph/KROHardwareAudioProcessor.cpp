#include "KROHardwareAudioProcessor.h"

#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KROHardwareAudioProcessor, KROHeadAudioProcessor)

std::shared_ptr<KROAudioProcessor>
KROHardwareAudioProcessor::initReturningObject(KROErrorPtr* error) {
    if (className() != staticClassName()) {
        return KROHeadAudioProcessor::initReturningObject(error);
    }
    // The lookup is by name, exactly "KROOSXHardwareAudioProcessor";
    // absent, it yields none and no error is stored.
    auto head = std::dynamic_pointer_cast<KROAudioProcessor>(
        KROClassRegistry::sharedRegistry().makeObject(deviceHeadClassName));
    if (!head || head->className() == staticClassName()) {
        return nullptr;
    }
    return head->init(error) ? head : nullptr;
}
