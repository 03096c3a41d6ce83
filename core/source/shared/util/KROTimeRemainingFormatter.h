// Rounded, human durations for progress displays: "45 seconds",
// "2 minutes 30 seconds", "1 hour 5 minutes". Below a minute the time is
// rounded to the second, below an hour to ten seconds, above to the minute,
// so the text changes calmly while a job runs. Reads back what it prints,
// short units ("2 min 30 s", "1h 5m") and a bare number of seconds.
#pragma once

#include <string>
#include <string_view>

#include "KROObject.h"

class KROTimeRemainingFormatter : public KROObject {
    KRO_DECLARE_CLASS(KROTimeRemainingFormatter)

public:
    // "" for a time that is negative, not finite, or beyond 2^53 seconds:
    // a display with no estimate shows nothing.
    std::string stringForObjectValue(double seconds) const;
    // False and a description for text that is not a duration.
    bool getObjectValue(double& seconds, std::string_view text,
                        std::string* errorDescription = nullptr) const;
    // True while the text can still become a duration.
    bool isPartialStringValid(std::string_view partialString,
                              std::string* newEditingString = nullptr,
                              std::string* errorDescription = nullptr) const;
};
