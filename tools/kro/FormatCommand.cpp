#include "FormatCommand.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <iostream>
#include <limits>
#include <optional>
#include <utility>
#include <vector>

#include "JSONText.h"
#include "KRODecibelFormatter.h"
#include "KROMIDINoteFormatter.h"
#include "KROTextNumbers.h"
#include "KROTimeFormatter.h"

namespace {

using Options = FormatCommand::Options;

// The names a user types for the formats of the time formatter, in the order
// of their numbers.
const std::vector<std::string>& timeStyles() {
    static const std::vector<std::string> styles{
        "samples",          "milliseconds", "seconds",  "m:ss.hh",        "smpte-30",
        "smpte-29.97-drop", "smpte-25",     "smpte-24", "h:mm:ss.hh",     "bars-480",
        "milliseconds.t",   "seconds.mmm",  "m:ss",     "m:ss.mmm",       "h:mm:ss",
        "h:mm:ss.mmm",      "bars-960",     "mm:ss.ff", "blocks;samples", "hh:mm:ss.ff",
        "m:ss.t",           "h:mm:ss.t",    "words",    "smpte-23.976"};
    return styles;
}

// One kind of value: its styles, the default, and how it turns a number into
// text and text into a number.
struct Kind {
    std::vector<std::string> styles;
    std::string defaultStyle;
    std::string unit;
    std::function<std::string(const Options&, double)> format;
    std::function<bool(const Options&, double&, const std::string&, std::string*)> parse;
};

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += text.empty() ? "" : ", ";
        text += name;
    }
    return text;
}

unsigned timeFormatOf(const std::string& style) {
    const auto& styles = timeStyles();
    return static_cast<unsigned>(std::find(styles.begin(), styles.end(), style) - styles.begin());
}

// A time style may also be given by its number, 0 to 23.
std::string styleNamed(const std::string& kind, const std::string& style) {
    const auto& styles = timeStyles();
    const bool isNumber = !style.empty() && style.size() <= 2 &&
                          style.find_first_not_of("0123456789") == std::string::npos;
    if (kind == "time" && isNumber && std::stoul(style) < styles.size()) {
        return styles[std::stoul(style)];
    }
    return style;
}

KROTimeFormatter timeFormatter(const Options& options) {
    KROTimeFormatter formatter;
    formatter.setFormat(timeFormatOf(options.style));
    formatter.setSampleRate(options.sampleRate);
    formatter.setTempo(options.tempo);
    formatter.setMeterNumerator(options.meter);
    formatter.setIsPosition(options.position);
    return formatter;
}

KRODecibelFormatter decibelFormatter(const Options& options) {
    KRODecibelFormatter formatter;
    formatter.setPrecision(options.precision);
    formatter.setShowsPlusSign(options.style == "gain");
    return formatter;
}

KROMIDINoteFormatter noteFormatter(const Options& options) {
    KROMIDINoteFormatter formatter;
    formatter.setUsesFlats(options.style == "flats");
    return formatter;
}

const std::vector<std::pair<std::string, Kind>>& kinds() {
    static const std::vector<std::pair<std::string, Kind>> list{
        {"time",
         {timeStyles(), "h:mm:ss.mmm", "seconds",
          [](const Options& o, double v) { return timeFormatter(o).stringForObjectValue(v); },
          [](const Options& o, double& v, const std::string& t, std::string* e) {
              return timeFormatter(o).getObjectValue(v, t, e);
          }}},
        {"db",
         {{"level", "gain"},
          "level",
          "decibels",
          [](const Options& o, double v) { return decibelFormatter(o).stringForObjectValue(v); },
          [](const Options& o, double& v, const std::string& t, std::string* e) {
              return decibelFormatter(o).getObjectValue(v, t, e);
          }}},
        {"note",
         {{"sharps", "flats"},
          "sharps",
          "a MIDI note number",
          [](const Options& o, double v) { return noteFormatter(o).stringForObjectValue(v); },
          [](const Options& o, double& v, const std::string& t, std::string* e) {
              return noteFormatter(o).getObjectValue(v, t, e);
          }}},
    };
    return list;
}

const Kind* kindNamed(const std::string& name) {
    for (const auto& [kindName, kind] : kinds()) {
        if (kindName == name) {
            return &kind;
        }
    }
    return nullptr;
}

// The number to format: a decimal number, or "-inf" for a level.
std::optional<double> numberOf(const Options& options) {
    if (options.kind == "db" && options.value == "-inf") {
        return -std::numeric_limits<double>::infinity();
    }
    return kro::decimalValue(options.value);
}

int failure(const std::string& message) {
    std::cerr << "kro: " << message << "\n";
    return 1;
}

// A number as the user would type it back: silence reads "-inf".
std::string numberText(double value) {
    return std::isinf(value) ? (value < 0 ? "-inf" : "inf") : jsonNumber(value);
}

void print(const Options& options, double value, const std::string& text) {
    if (!options.json) {
        std::cout << (options.parse ? numberText(value) : text) << "\n";
        return;
    }
    std::cout << "{\"kind\":" << jsonString(options.kind)
              << ",\"style\":" << jsonString(options.style) << ",\"value\":" << jsonNumber(value)
              << ",\"text\":" << jsonString(text) << "}\n";
}

} // namespace

FormatCommand::FormatCommand(CLI::App& app) {
    command_ = app.add_subcommand("format", "Show a time, level or note as text, or read it back");
    command_->add_option("kind", options_.kind, "time, db or note")->required();
    command_->add_option("value", options_.value, "The number to show, or with --parse the text")
        ->required();
    command_->add_option("--style", options_.style,
                         "time: " + joined(timeStyles()) +
                             " (or the number 0-23); db: level, gain; note: sharps, flats");
    command_->add_flag("--parse", options_.parse, "Read VALUE as text and print the number");
    command_->add_flag("--json", options_.json, "Print JSON");
    command_->add_option("--rate", options_.sampleRate, "Sample rate of the sample styles");
    command_->add_option("--tempo", options_.tempo, "Beats per minute of the bar styles");
    command_->add_option("--meter", options_.meter, "Beats per bar of the bar styles");
    command_->add_flag("--position", options_.position, "Bars count from 1|1|000");
    command_->add_option("--precision", options_.precision, "Decimals of a level");
    command_->footer(
        "Shows a number of seconds, decibels or a MIDI note number as the library's\n"
        "formatters write it, or with --parse reads such a text back into the number.\n"
        "A value that starts with a minus sign and is no number follows --.\n\n"
        "Example:\n  kro format time 61.5 --style m:ss.hh\n  kro format note C#4 --parse --json\n"
        "  kro format db -- -inf");
}

int FormatCommand::run() const {
    Options options = options_;
    const Kind* kind = kindNamed(options.kind);
    if (!kind) {
        return failure("unknown kind \"" + options.kind + "\"; the kinds are time, db and note.");
    }
    options.style =
        options.style.empty() ? kind->defaultStyle : styleNamed(options.kind, options.style);
    if (std::find(kind->styles.begin(), kind->styles.end(), options.style) == kind->styles.end()) {
        return failure("unknown " + options.kind + " style \"" + options.style +
                       "\"; the styles are " + joined(kind->styles) + ".");
    }
    if (options.parse) {
        double value = 0;
        std::string description;
        if (!kind->parse(options, value, options.value, &description)) {
            return failure(description.empty()
                               ? "\"" + options.value + "\" cannot be read in the style " +
                                     options.style + "."
                               : description);
        }
        print(options, value, options.value);
        return 0;
    }
    const auto number = numberOf(options);
    if (!number) {
        return failure("\"" + options.value + "\" is not " + kind->unit +
                       "; add --parse to read a text.");
    }
    const std::string text = kind->format(options, *number);
    if (text.empty()) {
        return failure(options.value + " has no text in the " + options.kind + " style " +
                       options.style + ".");
    }
    print(options, *number, text);
    return 0;
}
