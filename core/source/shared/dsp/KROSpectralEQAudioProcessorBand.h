// The bands of the spectral equaliser: each gives an amplitude gain for any
// frequency, and the equaliser multiplies the gains of its enabled bands on a
// grid of bins. The base band is flat; the five kinds below shape the curve
// in log frequency. Bands are set up by the host and read by update(); they
// take no part in rendering.
//
// Properties: "class" (the class name) and "enabled", plus each kind's fields
// under their own names, as numbers.
#pragma once

#include <memory>

#include "KROObject.h"
#include "KROPropertyList.h"

class KROSpectralEQAudioProcessor;

class KROSpectralEQAudioProcessorBand : public KROObject {
    KRO_DECLARE_CLASS(KROSpectralEQAudioProcessorBand)

public:
    static std::shared_ptr<KROSpectralEQAudioProcessorBand> band();
    // A band of the class that "class" names, with the properties set; none
    // for a name that is no band class.
    static std::shared_ptr<KROSpectralEQAudioProcessorBand>
    bandWithProperties(const KROPropertyList& properties);

    // The amplitude gain at a frequency in Hz.
    virtual double scalarForFrequency(double hertz) const;

    virtual KROPropertyList properties() const;
    // Reads the keys present; others keep their values.
    virtual void setProperties(const KROPropertyList& properties);

    bool enabled() const { return enabled_; }
    void setEnabled(bool enabled) { enabled_ = enabled; }
    // Back reference, not owned.
    KROSpectralEQAudioProcessor* processor() const { return processor_; }
    void setProcessor(KROSpectralEQAudioProcessor* processor) { processor_ = processor; }

protected:
    // Reads a number present under key into field through the setter.
    template <typename Band>
    void readNumber(const KROPropertyList& properties, const char* key,
                    void (Band::*setter)(double)) {
        if (const KROPropertyList* value = properties.objectForKey(key);
            value && (value->isNumber() || value->isBoolean())) {
            (static_cast<Band*>(this)->*setter)(value->doubleValue());
        }
    }

private:
    bool enabled_ = true;
    KROSpectralEQAudioProcessor* processor_ = nullptr;
};

// The field setters hold each value in its range; a NaN frequency, slope or
// spread reads as 0.

// Above frequency, (frequency / f)^(4 * slope): a slope of 0.25 falls 6 dB
// per octave. "frequency", "slope".
class KROSpectralEQAudioProcessorBandLowpass : public KROSpectralEQAudioProcessorBand {
    KRO_DECLARE_CLASS(KROSpectralEQAudioProcessorBandLowpass)

public:
    double scalarForFrequency(double hertz) const override;
    KROPropertyList properties() const override;
    void setProperties(const KROPropertyList& properties) override;

    double frequency() const { return frequency_; }
    void setFrequency(double hertz);
    double slope() const { return slope_; }
    void setSlope(double slope) { slope_ = slope; }

private:
    double frequency_ = 1000.0;
    double slope_ = 0.25;
};

// Below frequency, (f / frequency)^(4 * slope), f held at 0.01 Hz or more so
// that bin 0 has a gain. "frequency", "slope".
class KROSpectralEQAudioProcessorBandHighpass : public KROSpectralEQAudioProcessorBand {
    KRO_DECLARE_CLASS(KROSpectralEQAudioProcessorBandHighpass)

public:
    double scalarForFrequency(double hertz) const override;
    KROPropertyList properties() const override;
    void setProperties(const KROPropertyList& properties) override;

    double frequency() const { return frequency_; }
    void setFrequency(double hertz);
    double slope() const { return slope_; }
    void setSlope(double slope) { slope_ = slope; }

private:
    double frequency_ = 1000.0;
    double slope_ = 0.25;
};

// scalar at frequency, falling to 1 at width octaves either side, linearly in
// dB against log frequency; spread is the share of each flank held flat at
// scalar (0 a triangle, 1 a rectangle). "frequency", "scalar", "width",
// "spread".
class KROSpectralEQAudioProcessorBandBandpass : public KROSpectralEQAudioProcessorBand {
    KRO_DECLARE_CLASS(KROSpectralEQAudioProcessorBandBandpass)

public:
    double scalarForFrequency(double hertz) const override;
    KROPropertyList properties() const override;
    void setProperties(const KROPropertyList& properties) override;

    double frequency() const { return frequency_; }
    void setFrequency(double hertz);
    double scalar() const { return scalar_; }
    void setScalar(double scalar);
    double width() const { return width_; }
    void setWidth(double octaves);
    double spread() const { return spread_; }
    void setSpread(double spread);

private:
    double frequency_ = 1000.0;
    double scalar_ = 1.0;
    double width_ = 1.0;
    double spread_ = 0.0;
};

// scalar at and below frequency, 1 above frequency * 4^slope, linear in dB
// against log frequency between. "frequency", "scalar", "slope".
class KROSpectralEQAudioProcessorBandLowShelf : public KROSpectralEQAudioProcessorBand {
    KRO_DECLARE_CLASS(KROSpectralEQAudioProcessorBandLowShelf)

public:
    double scalarForFrequency(double hertz) const override;
    KROPropertyList properties() const override;
    void setProperties(const KROPropertyList& properties) override;

    double frequency() const { return frequency_; }
    void setFrequency(double hertz);
    double scalar() const { return scalar_; }
    void setScalar(double scalar);
    double slope() const { return slope_; }
    void setSlope(double slope);

protected:
    double frequency_ = 1000.0;
    double scalar_ = 1.0;
    double slope_ = 0.5;
};

// 1 below frequency / 4^slope, scalar at and above frequency, linear in dB
// against log frequency between. "frequency", "scalar", "slope".
class KROSpectralEQAudioProcessorBandHighShelf : public KROSpectralEQAudioProcessorBandLowShelf {
    KRO_DECLARE_CLASS(KROSpectralEQAudioProcessorBandHighShelf)

public:
    double scalarForFrequency(double hertz) const override;
};
