#include "KROFMSynthCarrier.h"

#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KROFMSynthCarrier, KROObject)

void KROFMSynthCarrier::setReleaseLength(float seconds) {
    // Not below a microsecond: the release divides by its length in ticks.
    releaseLength_.store(seconds >= 1e-06f ? seconds : 1e-06f, std::memory_order_relaxed);
}

void KROFMSynthCarrier::setProperties(const KROPropertyList& properties) {
    auto number = [&](const char* key) {
        const KROPropertyList* value = properties.objectForKey(key);
        return value ? float(value->doubleValue()) : 0.0f;
    };
    setModulationIndex(number("modulationIndex"));
    setTuning(number("tuning"));
    setLfoFrequency(number("lfoFrequency"));
    setLfoDepth(number("lfoDepth"));
    setAttackLength(number("attack"));
    setDecayLength(number("decay"));
    setSustainLength(number("sustain"));
    setReleaseLength(number("release"));
    setMix(number("mix"));
}
