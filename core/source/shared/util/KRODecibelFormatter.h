// Gains and levels in decibels for faders, meters and their text fields:
// "-6.0 dB", "+3.5 dB" with the plus sign shown, "-inf dB" for silence.
// Reads back what it prints, with or without the unit, and plain numbers.
#pragma once

#include <string>
#include <string_view>

#include "KROObject.h"

class KRODecibelFormatter : public KROObject {
    KRO_DECLARE_CLASS(KRODecibelFormatter)

public:
    // Decimals shown, 1 unless set; at most 9.
    unsigned precision() const { return precision_; }
    void setPrecision(unsigned precision);
    // "+3.0" rather than "3.0" for gains above 0 dB.
    bool showsPlusSign() const { return showsPlusSign_; }
    void setShowsPlusSign(bool showsPlusSign) { showsPlusSign_ = showsPlusSign; }
    // " dB" after the number, shown unless cleared.
    bool showsUnit() const { return showsUnit_; }
    void setShowsUnit(bool showsUnit) { showsUnit_ = showsUnit; }

    // "" for NaN and for +infinity, which no gain can be.
    std::string stringForObjectValue(double decibels) const;
    // A number with an optional "dB" of any case, or "-inf"; false and a
    // description for any other text.
    bool getObjectValue(double& decibels, std::string_view text,
                        std::string* errorDescription = nullptr) const;
    // True while the text can still become a level.
    bool isPartialStringValid(std::string_view partialString,
                              std::string* newEditingString = nullptr,
                              std::string* errorDescription = nullptr) const;

private:
    unsigned precision_ = 1;
    bool showsPlusSign_ = false;
    bool showsUnit_ = true;
};
