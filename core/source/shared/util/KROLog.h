// The one log sink of the library: plain formatted lines on the system log, no
// levels. Syslog by default; a host or a test may replace the sink to read the
// exact lines.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "KROStringWithFormat.h"

using KROLogSink = std::function<void(const std::string& line)>;

// Replaces the sink; an empty function restores syslog.
void KROSetLogSink(KROLogSink sink);

// Writes one line, already formatted.
void KROLogLine(const std::string& line);

// Formats a string-table style format (KROStringWithFormat) and writes it.
template <typename... Arguments> void KROLog(const std::string& format, Arguments&&... arguments) {
    KROLogLine(KROStringWithFormat(format, {KROFormatArgument(arguments)...}));
}
