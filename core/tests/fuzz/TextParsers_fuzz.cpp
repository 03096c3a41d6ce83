// Typed text for the time and value formatters and file name schemes; byte 0
// chooses the settings, byte 1 the format. A value that does not read back traps.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "KROAudioFilenameScheme.h"
#include "KROBitDepthFormatter.h"
#include "KRODecibelFormatter.h"
#include "KROMIDINoteFormatter.h"
#include "KROTimeFormatter.h"
#include "KROTimeRemainingFormatter.h"

namespace {

void exerciseTimeFormatter(std::uint8_t settings, std::uint8_t format, std::string_view text) {
    static const double rates[] = {0, 44100, -48000, std::numeric_limits<double>::quiet_NaN()};
    KROTimeFormatter formatter;
    formatter.setFormat(format % 26);
    formatter.setSampleRate(rates[settings & 3]);
    formatter.setTempo((settings & 4) ? 0 : 97.5);
    formatter.setMeterNumerator((settings & 8) ? 0 : 3);
    formatter.setIsPosition((settings & 16) != 0);
    double seconds = 0;
    std::string description;
    if (formatter.getObjectValue(seconds, text, &description)) {
        if (!std::isfinite(seconds)) {
            __builtin_trap();
        }
        (void)formatter.stringForObjectValue(seconds);
    }
    (void)formatter.isPartialStringValid(text);
}

void exerciseScheme(std::string_view text) {
    const std::size_t lineBreak = text.find('\n');
    const std::string_view expression = text.substr(0, lineBreak);
    const std::string_view filename =
        lineBreak == std::string_view::npos ? std::string_view{} : text.substr(lineBreak + 1);
    const auto scheme = KROAudioFilenameScheme::schemeWithExpression(std::string(expression));
    if (const auto parts = scheme->parseFilename(filename)) {
        (void)scheme->filenameForName(parts->name, parts->abbreviation.value_or(""),
                                      parts->extension.value_or(""));
    }
}

// A text that reads must give a value whose own text reads to the same text.
template <typename Formatter, typename Value>
void exerciseRoundTrip(const Formatter& formatter, std::string_view text) {
    Value value{};
    std::string description;
    if (!formatter.getObjectValue(value, text, &description)) {
        return;
    }
    const std::string shown = formatter.stringForObjectValue(value);
    Value again{};
    if (shown.empty() || !formatter.getObjectValue(again, shown) ||
        formatter.stringForObjectValue(again) != shown) {
        __builtin_trap();
    }
    (void)formatter.isPartialStringValid(text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    const std::string_view text(reinterpret_cast<const char*>(data + 2), size - 2);
    exerciseTimeFormatter(data[0], data[1], text);
    exerciseScheme(text);

    KRODecibelFormatter decibels;
    decibels.setPrecision(data[0] % 4);
    decibels.setShowsPlusSign((data[0] & 32) != 0);
    exerciseRoundTrip<KRODecibelFormatter, double>(decibels, text);
    KROMIDINoteFormatter notes;
    notes.setUsesFlats((data[0] & 64) != 0);
    exerciseRoundTrip<KROMIDINoteFormatter, double>(notes, text);
    exerciseRoundTrip<KROBitDepthFormatter, KROBitDepth>(KROBitDepthFormatter(), text);
    exerciseRoundTrip<KROTimeRemainingFormatter, double>(KROTimeRemainingFormatter(), text);
    return 0;
}
