#include "KROHeadAudioProcessor.h"

#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KROHeadAudioProcessor, KROAudioProcessor)

bool KROHeadAudioProcessor::init(KROErrorPtr* error) {
    if (!KROAudioProcessor::init(error)) {
        return false;
    }
    info_ = std::make_shared<KROAudioStreamRenderInfo>();
    return true;
}

bool KROHeadAudioProcessor::start(KROErrorPtr* /*error*/) {
    return false;
}

bool KROHeadAudioProcessor::stop(KROErrorPtr* /*error*/) {
    return false;
}

bool KROHeadAudioProcessor::setSettings(const KROPropertyList& settings, KROErrorPtr* error) {
    if (!KROAudioProcessor::setSettings(settings, error)) {
        return false;
    }
    // Booleans, or numbers read as booleans; a value of another kind counts
    // as absent and the flag keeps its value.
    const auto flag = [&settings](const char* key, bool current) {
        const KROPropertyList* const value = settings.objectForKey(key);
        return value && (value->isBoolean() || value->isNumber()) ? value->boolValue() : current;
    };
    isInputHead_ = flag("isInputHead", isInputHead_);
    isRenderHead_ = flag("isRenderHead", isRenderHead_);
    return true;
}
