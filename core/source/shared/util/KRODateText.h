// Dates as text in the fixed patterns that file formats use, in the local time
// zone as the platform's date formatter works by default. A pattern is made of
// the fields yyyy, MM, dd, HH, mm, ss and Z (a "+hhmm" offset from UTC); any
// other character stands for itself.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "KROPropertyList.h"

namespace kro {

// "2024-05-17" for "yyyy-MM-dd"; the seconds are cut, not rounded.
std::string stringFromDate(KRODate date, std::string_view pattern);
// The date the whole text gives in the pattern; none when the text does not
// fit it or names no such day or time. Fields the pattern lacks are those of
// 2000-01-01 00:00:00; with Z the offset in the text replaces the zone.
std::optional<KRODate> dateFromString(std::string_view text, std::string_view pattern);

} // namespace kro
