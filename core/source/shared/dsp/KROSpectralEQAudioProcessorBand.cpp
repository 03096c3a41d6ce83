#include "KROSpectralEQAudioProcessorBand.h"

#include <algorithm>
#include <cmath>

#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KROSpectralEQAudioProcessorBand, KROObject)
KRO_REGISTER_CLASS(KROSpectralEQAudioProcessorBandLowpass, KROSpectralEQAudioProcessorBand)
KRO_REGISTER_CLASS(KROSpectralEQAudioProcessorBandHighpass, KROSpectralEQAudioProcessorBand)
KRO_REGISTER_CLASS(KROSpectralEQAudioProcessorBandBandpass, KROSpectralEQAudioProcessorBand)
KRO_REGISTER_CLASS(KROSpectralEQAudioProcessorBandLowShelf, KROSpectralEQAudioProcessorBand)
KRO_REGISTER_CLASS(KROSpectralEQAudioProcessorBandHighShelf,
                   KROSpectralEQAudioProcessorBandLowShelf)

namespace {

// Not below 0; NaN reads as 0.
double nonNegative(double value) {
    return value > 0.0 ? value : 0.0;
}

// 10^(share * dB(scalar) / 20): a share of the gain in dB.
double shareOfGain(double share, double scalar) {
    return std::pow(10.0, share * std::log10(scalar) * 20.0 / 20.0);
}

} // namespace

std::shared_ptr<KROSpectralEQAudioProcessorBand> KROSpectralEQAudioProcessorBand::band() {
    return std::make_shared<KROSpectralEQAudioProcessorBand>();
}

std::shared_ptr<KROSpectralEQAudioProcessorBand>
KROSpectralEQAudioProcessorBand::bandWithProperties(const KROPropertyList& properties) {
    const KROPropertyList* name = properties.objectForKey("class");
    if (!name || !name->stringValue()) {
        return nullptr;
    }
    auto band = std::dynamic_pointer_cast<KROSpectralEQAudioProcessorBand>(
        KROClassRegistry::sharedRegistry().makeObject(*name->stringValue()));
    if (band) {
        band->setProperties(properties);
    }
    return band;
}

double KROSpectralEQAudioProcessorBand::scalarForFrequency(double /*hertz*/) const {
    return 1.0;
}

KROPropertyList KROSpectralEQAudioProcessorBand::properties() const {
    KROPropertyList properties = KROPropertyList::dictionary();
    properties.setObjectForKey("class", className());
    properties.setObjectForKey("enabled", enabled_);
    return properties;
}

void KROSpectralEQAudioProcessorBand::setProperties(const KROPropertyList& properties) {
    if (const KROPropertyList* value = properties.objectForKey("enabled");
        value && (value->isBoolean() || value->isNumber())) {
        enabled_ = value->boolValue();
    }
}

// Lowpass

double KROSpectralEQAudioProcessorBandLowpass::scalarForFrequency(double f) const {
    if (f > frequency_) {
        return std::pow(float(frequency_ / f), float(slope_ * 4.0));
    }
    return 1.0;
}

void KROSpectralEQAudioProcessorBandLowpass::setFrequency(double hertz) {
    frequency_ = nonNegative(hertz);
}

KROPropertyList KROSpectralEQAudioProcessorBandLowpass::properties() const {
    KROPropertyList properties = KROSpectralEQAudioProcessorBand::properties();
    properties.setObjectForKey("frequency", frequency_);
    properties.setObjectForKey("slope", slope_);
    return properties;
}

void KROSpectralEQAudioProcessorBandLowpass::setProperties(const KROPropertyList& properties) {
    KROSpectralEQAudioProcessorBand::setProperties(properties);
    using Band = KROSpectralEQAudioProcessorBandLowpass;
    readNumber<Band>(properties, "frequency", &Band::setFrequency);
    readNumber<Band>(properties, "slope", &Band::setSlope);
}

// Highpass

double KROSpectralEQAudioProcessorBandHighpass::scalarForFrequency(double f) const {
    if (f < frequency_) {
        return std::pow(float(std::max(f, 0.01) / frequency_), float(slope_ * 4.0));
    }
    return 1.0;
}

void KROSpectralEQAudioProcessorBandHighpass::setFrequency(double hertz) {
    frequency_ = nonNegative(hertz);
}

KROPropertyList KROSpectralEQAudioProcessorBandHighpass::properties() const {
    KROPropertyList properties = KROSpectralEQAudioProcessorBand::properties();
    properties.setObjectForKey("frequency", frequency_);
    properties.setObjectForKey("slope", slope_);
    return properties;
}

void KROSpectralEQAudioProcessorBandHighpass::setProperties(const KROPropertyList& properties) {
    KROSpectralEQAudioProcessorBand::setProperties(properties);
    using Band = KROSpectralEQAudioProcessorBandHighpass;
    readNumber<Band>(properties, "frequency", &Band::setFrequency);
    readNumber<Band>(properties, "slope", &Band::setSlope);
}

// Bandpass

double KROSpectralEQAudioProcessorBandBandpass::scalarForFrequency(double f) const {
    const double w = std::exp2(width_);
    const double x = std::log10(f);
    const double c = std::log10(frequency_);
    const double lo = std::log10(frequency_ / w);
    const double hi = std::log10(w * frequency_);
    if (lo < x && x <= c) {
        const double p = c - (c - lo) * spread_;
        if (x < p) {
            return shareOfGain(std::min(1.0, (x - lo) / (p - lo)), scalar_);
        }
        return scalar_;
    }
    if (x < c || x >= hi) {
        return 1.0;
    }
    const double p = (hi - c) * spread_ + c;
    if (p < x) {
        return shareOfGain(1.0 - (x - p) / (hi - p), scalar_);
    }
    return scalar_;
}

void KROSpectralEQAudioProcessorBandBandpass::setFrequency(double hertz) {
    frequency_ = nonNegative(hertz);
}

void KROSpectralEQAudioProcessorBandBandpass::setScalar(double scalar) {
    scalar_ = std::fabs(scalar);
}

void KROSpectralEQAudioProcessorBandBandpass::setWidth(double octaves) {
    width_ = std::fabs(octaves);
}

void KROSpectralEQAudioProcessorBandBandpass::setSpread(double spread) {
    spread_ = std::min(nonNegative(spread), 1.0);
}

KROPropertyList KROSpectralEQAudioProcessorBandBandpass::properties() const {
    KROPropertyList properties = KROSpectralEQAudioProcessorBand::properties();
    properties.setObjectForKey("frequency", frequency_);
    properties.setObjectForKey("scalar", scalar_);
    properties.setObjectForKey("width", width_);
    properties.setObjectForKey("spread", spread_);
    return properties;
}

void KROSpectralEQAudioProcessorBandBandpass::setProperties(const KROPropertyList& properties) {
    KROSpectralEQAudioProcessorBand::setProperties(properties);
    using Band = KROSpectralEQAudioProcessorBandBandpass;
    readNumber<Band>(properties, "frequency", &Band::setFrequency);
    readNumber<Band>(properties, "scalar", &Band::setScalar);
    readNumber<Band>(properties, "width", &Band::setWidth);
    readNumber<Band>(properties, "spread", &Band::setSpread);
}

// Shelves

double KROSpectralEQAudioProcessorBandLowShelf::scalarForFrequency(double f) const {
    const double k = std::pow(4.0f, float(slope_));
    if (f > k * frequency_) {
        return 1.0;
    }
    if (f <= frequency_) {
        return scalar_;
    }
    const double x = std::log10(f);
    const double a = std::log10(frequency_);
    const double b = std::log10(k * frequency_);
    return shareOfGain(1.0 - (x - a) / (b - a), scalar_);
}

double KROSpectralEQAudioProcessorBandHighShelf::scalarForFrequency(double f) const {
    const double k = std::pow(4.0f, float(slope_));
    if (f < frequency_ / k) {
        return 1.0;
    }
    if (f >= frequency_) {
        return scalar_;
    }
    const double x = std::log10(f);
    const double a = std::log10(frequency_ / k);
    const double b = std::log10(frequency_);
    return shareOfGain((x - a) / (b - a), scalar_);
}

void KROSpectralEQAudioProcessorBandLowShelf::setFrequency(double hertz) {
    frequency_ = nonNegative(hertz);
}

void KROSpectralEQAudioProcessorBandLowShelf::setScalar(double scalar) {
    scalar_ = std::fabs(scalar);
}

void KROSpectralEQAudioProcessorBandLowShelf::setSlope(double slope) {
    slope_ = nonNegative(slope);
}

KROPropertyList KROSpectralEQAudioProcessorBandLowShelf::properties() const {
    KROPropertyList properties = KROSpectralEQAudioProcessorBand::properties();
    properties.setObjectForKey("frequency", frequency_);
    properties.setObjectForKey("scalar", scalar_);
    properties.setObjectForKey("slope", slope_);
    return properties;
}

void KROSpectralEQAudioProcessorBandLowShelf::setProperties(const KROPropertyList& properties) {
    KROSpectralEQAudioProcessorBand::setProperties(properties);
    using Band = KROSpectralEQAudioProcessorBandLowShelf;
    readNumber<Band>(properties, "frequency", &Band::setFrequency);
    readNumber<Band>(properties, "scalar", &Band::setScalar);
    readNumber<Band>(properties, "slope", &Band::setSlope);
}
