// MIDI note numbers as note names with their octave: 60 is "C4" (middle C),
// 61 is "C#4", or "Db4" with flats. Fractional notes, as a pitch detector
// gives them, show as the nearest note. Reads back "C#4", "Db4", "c#4",
// the signs U+266F and U+266D, and plain note numbers.
#pragma once

#include <string>
#include <string_view>

#include "KROObject.h"

class KROMIDINoteFormatter : public KROObject {
    KRO_DECLARE_CLASS(KROMIDINoteFormatter)

public:
    static constexpr int kLowestNote = 0;
    static constexpr int kHighestNote = 127;

    // "Db4" rather than "C#4".
    bool usesFlats() const { return usesFlats_; }
    void setUsesFlats(bool usesFlats) { usesFlats_ = usesFlats; }
    // The octave number of middle C: 4 unless set; some hosts count it as 3.
    int middleCOctave() const { return middleCOctave_; }
    void setMiddleCOctave(int octave) { middleCOctave_ = octave; }

    // "" for NaN and for notes that round outside 0 ... 127.
    std::string stringForObjectValue(double note) const;
    // False and a description for a text that is no note name, and for a
    // note outside 0 ... 127.
    bool getObjectValue(double& note, std::string_view text,
                        std::string* errorDescription = nullptr) const;
    // True while the text can still become a note name.
    bool isPartialStringValid(std::string_view partialString,
                              std::string* newEditingString = nullptr,
                              std::string* errorDescription = nullptr) const;

private:
    bool usesFlats_ = false;
    int middleCOctave_ = 4;
};
