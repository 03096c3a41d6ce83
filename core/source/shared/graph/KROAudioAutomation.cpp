#include "KROAudioAutomation.h"

#include <algorithm>

#include "KROAudioProcessor.h"
#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KROAudioAutomation, KROObject)

KROAudioAutomation::KROAudioAutomation() {
    remakeValueMap();
}

void KROAudioAutomation::remakeValueMap() {
    valueMap_ = std::dynamic_pointer_cast<KROValueMap>(
        KROClassRegistry::sharedRegistry().makeObject(valueMapClass()));
    if (!valueMap_) {
        valueMap_ = std::make_shared<KROValueMap>();
    }
    valueMap_->initWithType("segmented");
}

std::shared_ptr<KROAudioAutomation> KROAudioAutomation::automation() {
    return std::make_shared<KROAudioAutomation>();
}

std::shared_ptr<KROAudioAutomation> KROAudioAutomation::copy() const {
    auto copy = std::dynamic_pointer_cast<KROAudioAutomation>(
        KROClassRegistry::sharedRegistry().makeObject(className()));
    if (!copy) {
        copy = automation();
    }
    copy->setProperties(properties());
    return copy;
}

float KROAudioAutomation::normalizedValueForLocation(double seconds) const {
    if (seconds < location_ || seconds > location_ + length_) {
        return 0.0f;
    }
    const double position = length_ == 0.0 ? 0.0 : (seconds - location_) / length_;
    return valueMap_->outputValueForInputValue(static_cast<float>(position));
}

float KROAudioAutomation::valueForLocation(double seconds) const {
    if (seconds < location_ || seconds > location_ + length_) {
        return 0.0f;
    }
    return minimum_ + (maximum_ - minimum_) * normalizedValueForLocation(seconds);
}

void KROAudioAutomation::setStart(double start) {
    setLength(length_ - (start - location_));
    location_ = start;
}

const KROPropertyList* KROAudioAutomation::parameterLimit(const char* key) const {
    if (!processor_ || parameterKey_.empty()) {
        return nullptr;
    }
    const KROPropertyList* const description =
        processor_->descriptionOfParameterWithKey(parameterKey_);
    const KROPropertyList* const limit = description ? description->objectForKey(key) : nullptr;
    return limit && limit->isNumber() ? limit : nullptr;
}

void KROAudioAutomation::setMinimum(float minimum) {
    if (const KROPropertyList* const floor = parameterLimit("minimum")) {
        minimum = std::max(minimum, static_cast<float>(floor->doubleValue()));
    }
    minimum_ = minimum;
}

void KROAudioAutomation::setMaximum(float maximum) {
    if (const KROPropertyList* const ceiling = parameterLimit("maximum")) {
        maximum = std::min(maximum, static_cast<float>(ceiling->doubleValue()));
    }
    maximum_ = maximum;
}

KROPropertyList KROAudioAutomation::properties() const {
    KROPropertyList properties;
    properties.setObjectForKey("class", className());
    properties.setObjectForKey("location", location_);
    properties.setObjectForKey("length", length_);
    properties.setObjectForKey("valueMap", valueMap_->properties());
    properties.setObjectForKey("minimum", static_cast<double>(minimum_));
    properties.setObjectForKey("maximum", static_cast<double>(maximum_));
    properties.setObjectForKey("enabled", enabled_);
    properties.setObjectForKey("parameterKey", parameterKey_);
    return properties;
}

void KROAudioAutomation::setProperties(const KROPropertyList& properties) {
    const auto number = [](const KROPropertyList& from, const char* key) {
        const KROPropertyList* const value = from.objectForKey(key);
        return value && value->isNumber() ? value : nullptr;
    };
    if (const auto* value = number(properties, "location")) {
        location_ = value->doubleValue();
    }
    if (const auto* value = number(properties, "length")) {
        length_ = value->doubleValue();
    }
    // The older form, read after the two keys so that it wins.
    if (const KROPropertyList* const range = properties.objectForKey("range");
        range && range->isDictionary()) {
        if (const auto* value = number(*range, "location")) {
            location_ = value->doubleValue();
        }
        if (const auto* value = number(*range, "length")) {
            length_ = value->doubleValue();
        }
    }
    if (const KROPropertyList* const map = properties.objectForKey("valueMap");
        map && map->isDictionary()) {
        valueMap_->setProperties(*map);
    }
    if (const auto* value = number(properties, "minimum")) {
        minimum_ = static_cast<float>(value->doubleValue());
    }
    if (const auto* value = number(properties, "maximum")) {
        maximum_ = static_cast<float>(value->doubleValue());
    }
    if (const KROPropertyList* const value = properties.objectForKey("enabled");
        value && (value->isBoolean() || value->isNumber())) {
        enabled_ = value->boolValue();
    }
    if (const KROPropertyList* const value = properties.objectForKey("parameterKey");
        value && value->isString()) {
        parameterKey_ = *value->stringValue();
    }
}
