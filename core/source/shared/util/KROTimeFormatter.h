// Turns a time in seconds into the text of one of 24 display formats and back,
// for the text fields of a host: display, parsing on commit and a check of
// each keystroke. A time that is not finite, or whose count in the format's
// units passes 2^53 (or is negative, as with a negative rate or tempo), has
// no text: "" rather than digits that no longer mean anything.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "KROObject.h"

// The values of KROTimeFormatter::format.
enum KROTimeFormat : unsigned {
    KROTimeFormatSamples = 0,
    KROTimeFormatMilliseconds = 1,
    KROTimeFormatSeconds = 2,
    KROTimeFormatMinutesSecondsHundredths = 3,
    KROTimeFormatSMPTE30 = 4,
    KROTimeFormatSMPTE2997Drop = 5,
    KROTimeFormatSMPTE25 = 6,
    KROTimeFormatSMPTE24 = 7,
    KROTimeFormatHoursMinutesSecondsHundredths = 8,
    KROTimeFormatBarsBeats480 = 9,
    KROTimeFormatMillisecondsTenths = 10,
    KROTimeFormatSecondsMilliseconds = 11,
    KROTimeFormatMinutesSeconds = 12,
    KROTimeFormatMinutesSecondsMilliseconds = 13,
    KROTimeFormatHoursMinutesSeconds = 14,
    KROTimeFormatHoursMinutesSecondsMilliseconds = 15,
    KROTimeFormatBarsBeats960 = 16,
    KROTimeFormatCDMinutesSecondsFrames = 17,
    KROTimeFormatBlocksSamples = 18,
    KROTimeFormatCDHoursMinutesSecondsFrames = 19,
    KROTimeFormatMinutesSecondsTenths = 20,
    KROTimeFormatHoursMinutesSecondsTenths = 21,
    KROTimeFormatWords = 22,
    KROTimeFormatSMPTE23976 = 23,
};

class KROTimeFormatter : public KROObject {
    KRO_DECLARE_CLASS(KROTimeFormatter)

public:
    unsigned format() const { return format_; }
    void setFormat(unsigned format) { format_ = format; }
    // A position counts from bar 1 beat 1; a duration from bar 0 beat 0.
    bool isPosition() const { return isPosition_; }
    void setIsPosition(bool isPosition) { isPosition_ = isPosition; }
    double sampleRate() const { return sampleRate_; }
    void setSampleRate(double sampleRate) { sampleRate_ = sampleRate; }
    // Beats per minute.
    double tempo() const { return tempo_; }
    void setTempo(double tempo) { tempo_ = tempo; }
    // Beats per bar.
    unsigned meterNumerator() const { return meterNumerator_; }
    void setMeterNumerator(unsigned meterNumerator) { meterNumerator_ = meterNumerator; }

    // The smallest step of the format in seconds; 1.0 for an unknown format.
    double unitLength() const;

    // An emptied numeric field of a control sets the key ("format",
    // "isPosition", "sampleRate", "tempo", "meterNumerator") to 0.
    void setNilValueForKey(std::string_view key);

    // The text of a time; "" for an unknown format.
    std::string stringForObjectValue(double seconds) const;
    // None for none.
    std::optional<std::string> stringForObjectValue(std::optional<double> seconds) const;

    // Reads a text back into seconds. On failure answers false and, when a
    // slot is given, a description for the user: bars without tempo or
    // meter, bars text without two "|", or a result that is not a finite
    // time. Words and unknown formats answer false with no description.
    bool getObjectValue(double& seconds, std::string_view text,
                        std::string* errorDescription = nullptr) const;

    // True when every character is one a time can be typed with,
    // "0123456789.:;|-"; the other arguments are left alone.
    bool isPartialStringValid(std::string_view partialString,
                              std::string* newEditingString = nullptr,
                              std::string* errorDescription = nullptr) const;

private:
    std::string smpteText(double magnitude, const std::string& sign) const;
    std::string barsText(double magnitude, const std::string& sign, unsigned ticksPerBeat) const;
    std::string wordsText(double magnitude, const std::string& sign) const;
    std::string blocksText(double magnitude, const std::string& sign) const;
    std::optional<double> barsValue(std::string_view text, unsigned ticksPerBeat,
                                    std::string* errorDescription) const;

    unsigned format_ = 0;
    bool isPosition_ = false;
    double sampleRate_ = 0.0;
    double tempo_ = 0.0;
    unsigned meterNumerator_ = 0;
};
