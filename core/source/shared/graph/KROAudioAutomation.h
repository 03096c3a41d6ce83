// How one parameter of one processor moves during one stretch of a
// timeline. A processor falls back to this class for an automation whose
// class is unknown. This is the plain record with its properties; the curve
// is kept as the dictionary of properties it was given, for the value map
// and the playback that read it.
#pragma once

#include <memory>
#include <string>

#include "KROObject.h"
#include "KROPropertyList.h"

class KROAudioProcessor;

class KROAudioAutomation : public KROObject {
    KRO_DECLARE_CLASS(KROAudioAutomation)

public:
    // +automation: a new object of the class, enabled.
    static std::shared_ptr<KROAudioAutomation> automation();

    // A new object of the same class with setProperties of properties; the
    // processor is not carried over.
    std::shared_ptr<KROAudioAutomation> copy() const;

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
    // Limited by the parameter's "minimum" and
    // "maximum" when both processor and parameterKey are present.
    void setMinimum(float minimum);
    void setMaximum(float maximum);

    bool isEnabled() const { return enabled_; }
    void setEnabled(bool enabled) { enabled_ = enabled; }
    const std::string& parameterKey() const { return parameterKey_; }
    void setParameterKey(std::string key) { parameterKey_ = std::move(key); }

    // The properties of the curve, as a value map reads them.
    const KROPropertyList& valueMapProperties() const { return valueMapProperties_; }

    // Eight keys, always: class, location, length, valueMap, minimum,
    // maximum, enabled, parameterKey.
    virtual KROPropertyList properties() const;
    // Each key when present and of its type; "range" wins over "location" and
    // "length". Minimum and maximum are stored without limit.
    virtual void setProperties(const KROPropertyList& properties);

private:
    // The parameter's description value under key, when it is a number.
    const KROPropertyList* parameterLimit(const char* key) const;

    KROAudioProcessor* processor_ = nullptr;
    double location_ = 0.0;
    double length_ = 0.0;
    KROPropertyList valueMapProperties_;
    float minimum_ = 0.0f;
    float maximum_ = 0.0f;
    bool enabled_ = true;
    std::string parameterKey_;
};
