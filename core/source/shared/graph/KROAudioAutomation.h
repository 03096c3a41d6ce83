// How one parameter of one processor moves during one stretch of a
// timeline: a start and a length in seconds, a value curve (a KROValueMap)
// and the values at the curve's output 0 and 1. Automations belong to a
// processor and are stored with its settings; a processor falls back to this
// class for an automation whose class it does not know.
//
// Evaluation allocates nothing and takes no lock. While the processor
// renders, the automation is read on the render thread: edit it, or its
// curve, only while holding the processor's automationsLock.
#pragma once

#include <memory>
#include <string>

#include "KROObject.h"
#include "KROPropertyList.h"
#include "KROValueMap.h"

class KROAudioProcessor;

class KROAudioAutomation : public KROObject {
    KRO_DECLARE_CLASS(KROAudioAutomation)

public:
    // Enabled, over no time, with a "segmented" curve from (0, 0) to (1, 1).
    KROAudioAutomation();

    // A new object of the class, enabled.
    static std::shared_ptr<KROAudioAutomation> automation();
    // The registered class of the curve. A subclass that names another calls
    // remakeValueMap in its constructor.
    virtual std::string valueMapClass() const { return "KROValueMap"; }

    // A new object of the same class with setProperties of properties; the
    // processor is not carried over.
    std::shared_ptr<KROAudioAutomation> copy() const;

    // The curve's value at t, from minimum to maximum. Both ends are inside;
    // outside them the result is 0, not minimum.
    float valueForLocation(double seconds) const;
    // The curve's output at the position of t in the stretch (0 when the
    // length is 0); 0 outside it.
    float normalizedValueForLocation(double seconds) const;

    // Back reference, not owned.
    KROAudioProcessor* processor() const { return processor_; }
    void setProcessor(KROAudioProcessor* processor) { processor_ = processor; }

    double location() const { return location_; }
    void setLocation(double location) { location_ = location; }
    double length() const { return length_; }
    void setLength(double length) { length_ = length; }

    // setStart keeps the end, setEnd keeps the start.
    double start() const { return location_; }
    void setStart(double start);
    double end() const { return location_ + length_; }
    void setEnd(double end) { setLength(end - location_); }

    float minimum() const { return minimum_; }
    float maximum() const { return maximum_; }
    // Limited by the parameter's "minimum" (a floor) and "maximum" (a
    // ceiling) when both processor and parameterKey are present.
    void setMinimum(float minimum);
    void setMaximum(float maximum);

    bool isEnabled() const { return enabled_; }
    void setEnabled(bool enabled) { enabled_ = enabled; }
    const std::string& parameterKey() const { return parameterKey_; }
    void setParameterKey(std::string key) { parameterKey_ = std::move(key); }

    // Owned; its points may be edited, the map itself is not replaced.
    KROValueMap& valueMap() const { return *valueMap_; }

    // Eight keys, always: class, location, length, valueMap, minimum,
    // maximum, enabled, parameterKey.
    virtual KROPropertyList properties() const;
    // Each key when present and of its type; "range" wins over "location" and
    // "length". Minimum and maximum are stored without limit.
    virtual void setProperties(const KROPropertyList& properties);

protected:
    // A new "segmented" curve of valueMapClass.
    void remakeValueMap();

private:
    // The parameter's description value under key, when it is a number.
    const KROPropertyList* parameterLimit(const char* key) const;

    KROAudioProcessor* processor_ = nullptr;
    double location_ = 0.0;
    double length_ = 0.0;
    std::shared_ptr<KROValueMap> valueMap_;
    float minimum_ = 0.0f;
    float maximum_ = 0.0f;
    bool enabled_ = true;
    std::string parameterKey_;
};
