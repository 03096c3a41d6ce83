// The pieces of JSON that kro prints with --json.
#pragma once

#include <string>
#include <vector>

// A JSON string literal, quotes and control characters escaped.
std::string jsonString(const std::string& text);
std::string jsonStrings(const std::vector<std::string>& texts);
// The shortest text that reads back as the same double; null for NaN and the
// infinities, which JSON cannot hold.
std::string jsonNumber(double value);
