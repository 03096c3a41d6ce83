#include "KROTimeFormatter.h"

#include <cmath>
#include <cstdint>
#include <vector>

#include "KROLocalizedString.h"
#include "KROStringWithFormat.h"
#include "KROTextNumbers.h"

namespace {

using Count = std::int64_t;

// Beyond 2^53 a double no longer holds every whole count, so a text made
// from a larger count would name a time other than the one given.
constexpr double kLargestCount = 9007199254740992.0;

std::optional<Count> checkedCount(double count) {
    if (!(count >= 0.0 && count <= kLargestCount)) {
        return std::nullopt;
    }
    return static_cast<Count>(count);
}

std::optional<Count> wholeCount(double magnitude, double unitsPerSecond) {
    return checkedCount(std::floor(magnitude * unitsPerSecond));
}

// The decimal formats floor the signed value onto their grid and print it
// with its sign.
std::string decimalText(double seconds, double unitsPerSecond, double divisor, const char* format) {
    const double grid = std::floor(seconds * unitsPerSecond);
    if (!(std::fabs(grid) <= kLargestCount)) {
        return {};
    }
    return KROStringWithFormatArguments(format, grid / divisor);
}

// The clock formats: a whole count of units split into hours (when shown),
// minutes, seconds and a fraction (when the unit is below a second).
struct ClockLayout {
    Count unitsPerSecond;
    bool showsHours;
    const char* text;
};

std::optional<ClockLayout> clockLayout(unsigned format) {
    switch (format) {
    case KROTimeFormatMinutesSecondsHundredths:
        return ClockLayout{100, false, "%@%qi:%02qi.%02qi"};
    case KROTimeFormatHoursMinutesSecondsHundredths:
        return ClockLayout{100, true, "%@%qi:%02qi:%02qi.%02qi"};
    case KROTimeFormatMinutesSeconds:
        return ClockLayout{1, false, "%@%qi:%02qi"};
    case KROTimeFormatMinutesSecondsMilliseconds:
        return ClockLayout{1000, false, "%@%qi:%02qi.%03qi"};
    case KROTimeFormatHoursMinutesSeconds:
        return ClockLayout{1, true, "%@%qi:%02qi:%02qi"};
    case KROTimeFormatHoursMinutesSecondsMilliseconds:
        return ClockLayout{1000, true, "%@%qi:%02qi:%02qi.%03qi"};
    case KROTimeFormatCDMinutesSecondsFrames:
        return ClockLayout{75, false, "%@%02qi:%02qi.%02qi"};
    case KROTimeFormatCDHoursMinutesSecondsFrames:
        return ClockLayout{75, true, "%@%02qi:%02qi:%02qi.%02qi"};
    case KROTimeFormatMinutesSecondsTenths:
        return ClockLayout{10, false, "%@%qi:%02qi.%qi"};
    case KROTimeFormatHoursMinutesSecondsTenths:
        return ClockLayout{10, true, "%@%qi:%02qi:%02qi.%qi"};
    default:
        return std::nullopt;
    }
}

std::string clockText(const ClockLayout& layout, double magnitude, const std::string& sign) {
    const auto count = wholeCount(magnitude, static_cast<double>(layout.unitsPerSecond));
    if (!count) {
        return {};
    }
    const Count seconds = *count / layout.unitsPerSecond;
    std::vector<KROFormatArgument> fields{sign};
    if (layout.showsHours) {
        fields.emplace_back(seconds / 3600);
        fields.emplace_back((seconds / 60) % 60);
    } else {
        fields.emplace_back(seconds / 60);
    }
    fields.emplace_back(seconds % 60);
    if (layout.unitsPerSecond > 1) {
        fields.emplace_back(*count % layout.unitsPerSecond);
    }
    return KROStringWithFormat(layout.text, fields);
}

double smpteFramesPerSecond(unsigned format) {
    switch (format) {
    case KROTimeFormatSMPTE2997Drop:
        return 29.97;
    case KROTimeFormatSMPTE25:
        return 25.0;
    case KROTimeFormatSMPTE24:
        return 24.0;
    case KROTimeFormatSMPTE23976:
        return 23.976;
    default:
        return 30.0;
    }
}

bool isSMPTE(unsigned format) {
    return format == KROTimeFormatSMPTE30 || format == KROTimeFormatSMPTE2997Drop ||
           format == KROTimeFormatSMPTE25 || format == KROTimeFormatSMPTE24 ||
           format == KROTimeFormatSMPTE23976;
}

// The 29.97 and 23.976 formats count their fields in a base of 30.
bool countsInThirty(unsigned format) {
    return format == KROTimeFormatSMPTE2997Drop || format == KROTimeFormatSMPTE23976;
}

std::vector<std::string_view> components(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    for (std::size_t at = text.find(separator); at != std::string_view::npos;
         at = text.find(separator, start)) {
        parts.push_back(text.substr(start, at - start));
        start = at + 1;
    }
    parts.push_back(text.substr(start));
    return parts;
}

// Typed times may write every separator but the last decimal point as "." or
// ";": all of them read as ":".
std::string normalizedSeparators(std::string_view text) {
    std::string copy(text);
    const std::size_t lastPoint = copy.rfind('.');
    for (std::size_t at = 0; lastPoint != std::string::npos && at < lastPoint; ++at) {
        if (copy[at] == '.') {
            copy[at] = ':';
        }
    }
    for (char& c : copy) {
        if (c == ';') {
            c = ':';
        }
    }
    return copy;
}

// Whole numbers of a text, as doubles so that sums and products of typed
// numbers can grow without overflow.
double wholeAt(const std::vector<std::string_view>& parts, std::size_t index) {
    return static_cast<double>(kro::integerValue(parts[index]));
}

double minutesSecondsValue(const std::vector<std::string_view>& parts) {
    const double minutes = parts.size() >= 2 ? wholeAt(parts, 0) : 0.0;
    double seconds = kro::doubleValue(parts.back());
    if (minutes < 0) {
        seconds = -seconds;
    }
    return minutes * 60 + seconds;
}

double hoursMinutesSecondsValue(const std::vector<std::string_view>& parts) {
    const std::size_t count = parts.size();
    const double hours = count >= 3 ? wholeAt(parts, 0) : 0.0;
    const double minutes = count >= 2 ? wholeAt(parts, count - 2) : 0.0;
    double rest = kro::doubleValue(parts.back()) + minutes * 60;
    if (hours < 0) {
        rest = -rest;
    }
    return hours * 3600 + rest;
}

struct SMPTEFields {
    double hours = 0;
    double minutes = 0;
    double seconds = 0;
    double frames = 0;
};

SMPTEFields smpteFields(const std::vector<std::string_view>& parts) {
    const std::size_t count = parts.size();
    SMPTEFields fields;
    fields.frames = kro::doubleValue(parts.back());
    fields.seconds = count >= 2 ? wholeAt(parts, count - 2) : 0.0;
    fields.minutes = count >= 3 ? wholeAt(parts, count - 3) : 0.0;
    fields.hours = count >= 4 ? wholeAt(parts, 0) : 0.0;
    return fields;
}

double smpteValue(const SMPTEFields& fields, double framesPerSecond) {
    double rest =
        fields.seconds * framesPerSecond + fields.minutes * 60 * framesPerSecond + fields.frames;
    if (fields.hours < 0) {
        rest = -rest;
    }
    return (fields.hours * 3600 * framesPerSecond + rest) / framesPerSecond;
}

// Fields in a base of 30 with two frame numbers dropped each minute but every
// tenth. The 23.976 format reads the same way, though its text drops none.
double dropFrameValue(const SMPTEFields& fields, double framesPerSecond) {
    const double minutesCounted = std::fabs(fields.hours) * 60 + fields.minutes;
    const double dropped = (minutesCounted - std::trunc(minutesCounted / 10)) * 2;
    double rest = fields.seconds * 30 + fields.minutes * 1800 + fields.frames - dropped;
    if (fields.hours < 0) {
        rest = -rest;
    }
    return (fields.hours * 108000 + rest) / framesPerSecond;
}

// Decimals after the seconds are frames of 75.
double cdFramesValue(const std::vector<std::string_view>& parts) {
    const std::size_t count = parts.size();
    const double hours = count >= 3 ? wholeAt(parts, 0) : 0.0;
    const double minutes = count >= 2 ? wholeAt(parts, count - 2) : 0.0;
    double seconds = kro::doubleValue(parts.back());
    const double whole = std::trunc(seconds);
    seconds = (seconds - whole) / 0.75 + whole;
    if (hours < 0 || minutes < 0) {
        return hours * 3600 - (std::fabs(minutes) * 60 + seconds);
    }
    return hours * 3600 + minutes * 60 + seconds;
}

bool fail(std::string* errorDescription, std::string_view key) {
    if (errorDescription) {
        *errorDescription = KROLocalizedString(key);
    }
    return false;
}

} // namespace

double KROTimeFormatter::unitLength() const {
    switch (format_) {
    case KROTimeFormatSamples:
        return 1 / sampleRate_;
    case KROTimeFormatMilliseconds:
    case KROTimeFormatSecondsMilliseconds:
    case KROTimeFormatMinutesSecondsMilliseconds:
    case KROTimeFormatHoursMinutesSecondsMilliseconds:
        return 0.001;
    case KROTimeFormatSeconds:
    case KROTimeFormatMinutesSecondsHundredths:
    case KROTimeFormatHoursMinutesSecondsHundredths:
        return 0.01;
    case KROTimeFormatSMPTE30:
        return 0.03333333333333333;
    case KROTimeFormatSMPTE2997Drop:
        return 0.033366700033366704;
    case KROTimeFormatSMPTE25:
        return 0.04;
    case KROTimeFormatSMPTE24:
        return 0.041666666666666664;
    case KROTimeFormatSMPTE23976:
        return 0.04170837504170838;
    case KROTimeFormatBarsBeats480:
        return (60 / tempo_) / 480;
    case KROTimeFormatBarsBeats960:
        return (60 / tempo_) / 960;
    case KROTimeFormatMillisecondsTenths:
        return 0.0001;
    case KROTimeFormatCDMinutesSecondsFrames:
        return 0.013333333333333334;
    case KROTimeFormatBlocksSamples:
        return 28 / sampleRate_;
    case KROTimeFormatMinutesSecondsTenths:
    case KROTimeFormatHoursMinutesSecondsTenths:
        return 0.1;
    // Kept: the hours form of the 75-frame clock answers a whole second,
    // unlike its minutes form; hosts step their fields by it.
    case KROTimeFormatCDHoursMinutesSecondsFrames:
    default:
        return 1.0;
    }
}

void KROTimeFormatter::setNilValueForKey(std::string_view key) {
    if (key == "format") {
        format_ = 0;
    } else if (key == "isPosition") {
        isPosition_ = false;
    } else if (key == "sampleRate") {
        sampleRate_ = 0.0;
    } else if (key == "tempo") {
        tempo_ = 0.0;
    } else if (key == "meterNumerator") {
        meterNumerator_ = 0;
    }
}

std::optional<std::string>
KROTimeFormatter::stringForObjectValue(std::optional<double> seconds) const {
    if (!seconds) {
        return std::nullopt;
    }
    return stringForObjectValue(*seconds);
}

std::string KROTimeFormatter::stringForObjectValue(double seconds) const {
    if (!std::isfinite(seconds)) {
        return {};
    }
    const std::string sign = seconds < 0 ? "-" : "";
    const double magnitude = std::fabs(seconds);
    if (const auto layout = clockLayout(format_)) {
        return clockText(*layout, magnitude, sign);
    }
    if (isSMPTE(format_)) {
        return smpteText(magnitude, sign);
    }
    switch (format_) {
    case KROTimeFormatSamples: {
        const double samples = seconds * sampleRate_;
        if (sampleRate_ == 0 || !(std::fabs(samples) <= kLargestCount)) {
            return {};
        }
        return KROStringWithFormatArguments("%.0f", samples);
    }
    case KROTimeFormatMilliseconds:
        return decimalText(seconds, 1000, 1, "%.0f");
    case KROTimeFormatSeconds:
        return decimalText(seconds, 100, 100, "%.2f");
    case KROTimeFormatMillisecondsTenths:
        return decimalText(seconds, 10000, 10, "%.1f");
    case KROTimeFormatSecondsMilliseconds:
        return decimalText(seconds, 1000, 1000, "%.3f");
    case KROTimeFormatBarsBeats480:
        return barsText(magnitude, sign, 480);
    case KROTimeFormatBarsBeats960:
        return barsText(magnitude, sign, 960);
    case KROTimeFormatBlocksSamples:
        return blocksText(magnitude, sign);
    case KROTimeFormatWords:
        return wordsText(magnitude, sign);
    default:
        return {};
    }
}

std::string KROTimeFormatter::smpteText(double magnitude, const std::string& sign) const {
    auto frames = wholeCount(magnitude, smpteFramesPerSecond(format_));
    if (!frames) {
        return {};
    }
    Count count = *frames;
    if (format_ == KROTimeFormatSMPTE2997Drop) {
        // Drop-frame numbering: frame numbers 0 and 1 are skipped at the start
        // of each minute except every tenth.
        count = count + (count / 17982) * 18 + ((count - 2 - (count / 17982) * 17982) / 1798) * 2;
    }
    const Count base =
        countsInThirty(format_) ? 30 : static_cast<Count>(smpteFramesPerSecond(format_));
    // The hours run on past 24: a long recording keeps counting.
    const Count hours = count / (base * 3600);
    Count rest = count % (base * 3600);
    const Count minutes = rest / (base * 60);
    rest %= base * 60;
    const Count secondsField = rest / base;
    const std::string separator = countsInThirty(format_) ? ";" : ":";
    return KROStringWithFormatArguments("%@%qi:%02qi:%02qi%@%02qi", sign, hours, minutes,
                                        secondsField, separator, rest % base);
}

std::string KROTimeFormatter::barsText(double magnitude, const std::string& sign,
                                       unsigned ticksPerBeat) const {
    if (tempo_ == 0 || meterNumerator_ == 0) {
        return "--";
    }
    const auto ticks = checkedCount(std::floor(ticksPerBeat * ((tempo_ * magnitude) / 60)));
    if (!ticks) {
        return {};
    }
    const Count ticksPerBar = static_cast<Count>(ticksPerBeat) * meterNumerator_;
    Count bars = *ticks / ticksPerBar;
    const Count rest = *ticks % ticksPerBar;
    Count beats = rest / ticksPerBeat;
    if (isPosition_) {
        beats += 1;
        if (beats > static_cast<Count>(meterNumerator_)) {
            bars += 2;
            beats = 1;
        } else {
            bars += 1;
        }
    }
    return KROStringWithFormatArguments("%@%qi|%qi|%03qi", sign, bars, beats, rest % ticksPerBeat);
}

std::string KROTimeFormatter::blocksText(double magnitude, const std::string& sign) const {
    const auto samples = checkedCount(std::round(magnitude * sampleRate_));
    if (!samples) {
        return {};
    }
    return KROStringWithFormatArguments("%@%qi;%02qi", sign, *samples / 28, *samples % 28);
}

std::string KROTimeFormatter::wordsText(double magnitude, const std::string& sign) const {
    const auto whole = wholeCount(magnitude, 1);
    if (!whole) {
        return {};
    }
    const Count seconds = *whole;
    const std::string minute = KROLocalizedString("KROTimeFormatter_textDescription_minute");
    const std::string minutes = KROLocalizedString("KROTimeFormatter_textDescription_minutes");
    if (seconds < 60) {
        return KROStringWithFormatArguments("%@%@ %@", sign, Count{0}, minutes);
    }
    if (seconds < 3600) {
        return KROStringWithFormatArguments("%@%@ %@", sign, seconds / 60,
                                            seconds < 120 ? minute : minutes);
    }
    const std::string hour =
        KROLocalizedString(seconds < 7200 ? "KROTimeFormatter_textDescription_hour"
                                          : "KROTimeFormatter_textDescription_hours");
    const Count rest = seconds % 3600;
    if (rest < 60) {
        return KROStringWithFormatArguments("%@%@ %@", sign, seconds / 3600, hour);
    }
    return KROStringWithFormatArguments("%@%@ %@ %@ %@ %@", sign, seconds / 3600, hour,
                                        KROLocalizedString("KROTimeFormatter_textDescription_and"),
                                        rest / 60, rest < 120 ? minute : minutes);
}

bool KROTimeFormatter::getObjectValue(double& seconds, std::string_view text,
                                      std::string* errorDescription) const {
    const std::string typed = normalizedSeparators(text);
    const auto parts = components(typed, ':');
    std::optional<double> value;
    switch (format_) {
    case KROTimeFormatSamples:
        value = kro::doubleValue(typed) / sampleRate_;
        break;
    case KROTimeFormatMilliseconds:
    case KROTimeFormatMillisecondsTenths:
        value = kro::doubleValue(typed) / 1000;
        break;
    case KROTimeFormatSeconds:
    case KROTimeFormatSecondsMilliseconds:
        value = kro::doubleValue(typed);
        break;
    case KROTimeFormatMinutesSecondsHundredths:
    case KROTimeFormatMinutesSeconds:
    case KROTimeFormatMinutesSecondsMilliseconds:
    case KROTimeFormatMinutesSecondsTenths:
        value = minutesSecondsValue(parts);
        break;
    case KROTimeFormatHoursMinutesSecondsHundredths:
    case KROTimeFormatHoursMinutesSeconds:
    case KROTimeFormatHoursMinutesSecondsMilliseconds:
    case KROTimeFormatHoursMinutesSecondsTenths:
        value = hoursMinutesSecondsValue(parts);
        break;
    case KROTimeFormatSMPTE30:
    case KROTimeFormatSMPTE25:
    case KROTimeFormatSMPTE24:
        value = smpteValue(smpteFields(parts), smpteFramesPerSecond(format_));
        break;
    case KROTimeFormatSMPTE2997Drop:
    case KROTimeFormatSMPTE23976:
        value = dropFrameValue(smpteFields(parts), smpteFramesPerSecond(format_));
        break;
    case KROTimeFormatBarsBeats480:
        value = barsValue(typed, 480, errorDescription);
        break;
    case KROTimeFormatBarsBeats960:
        value = barsValue(typed, 960, errorDescription);
        break;
    case KROTimeFormatCDMinutesSecondsFrames:
    case KROTimeFormatCDHoursMinutesSecondsFrames:
        value = cdFramesValue(parts);
        break;
    case KROTimeFormatBlocksSamples: {
        // Kept: the ";" between blocks and samples has already become ":", so
        // the samples never count; hosts commit whole blocks this way.
        const auto blockParts = components(typed, ';');
        const double samples = blockParts.size() >= 2 ? wholeAt(blockParts, 1) : 0.0;
        value = (wholeAt(blockParts, 0) * 28 + samples) / sampleRate_;
        break;
    }
    default:
        return false;
    }
    if (!value) {
        return false;
    }
    if (!std::isfinite(*value)) {
        return fail(errorDescription, "KROTimeFormatter_timeOutOfRange");
    }
    seconds = *value;
    return true;
}

std::optional<double> KROTimeFormatter::barsValue(std::string_view text, unsigned ticksPerBeat,
                                                  std::string* errorDescription) const {
    if (tempo_ == 0 || meterNumerator_ == 0) {
        fail(errorDescription, "KROTimeFormatter_noTempoOrTimeSignature");
        return std::nullopt;
    }
    const auto parts = components(text, '|');
    if (parts.size() != 3) {
        fail(errorDescription, "KROTimeFormatter_barsBeatsBadFormat");
        return std::nullopt;
    }
    const double secondsPerBeat = 60 / tempo_;
    double bars = wholeAt(parts, 0);
    double beats = wholeAt(parts, 1);
    const double ticks = kro::doubleValue(parts[2]);
    if (isPosition_) {
        bars -= 1;
        beats -= 1;
    }
    double rest = ticks * secondsPerBeat / ticksPerBeat + beats * secondsPerBeat;
    if (bars < 0) {
        rest = -rest;
    }
    return meterNumerator_ * secondsPerBeat * bars + rest;
}

bool KROTimeFormatter::isPartialStringValid(std::string_view partialString, std::string*,
                                            std::string*) const {
    return partialString.find_first_not_of("0123456789.:;|-") == std::string_view::npos;
}
