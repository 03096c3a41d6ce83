// Sample sizes as export dialogs and file lists show them: "16-bit",
// "24-bit", "32-bit float". Integer samples have 1 to 32 bits, float samples
// 32 or 64. Reads back "24", "24 bit", "24-bit", "32-bit float", "32 float"
// in any case.
#pragma once

#include <string>
#include <string_view>

#include "KROObject.h"

struct KROBitDepth {
    unsigned bitsPerSample = 0;
    bool isFloat = false;

    bool operator==(const KROBitDepth&) const = default;
};

class KROBitDepthFormatter : public KROObject {
    KRO_DECLARE_CLASS(KROBitDepthFormatter)

public:
    static bool isSupported(const KROBitDepth& depth);

    // "" for a depth that is not supported.
    std::string stringForObjectValue(const KROBitDepth& depth) const;
    // False and a description for a text that names no depth or names an
    // unsupported one.
    bool getObjectValue(KROBitDepth& depth, std::string_view text,
                        std::string* errorDescription = nullptr) const;
    // True while the text can still become a bit depth.
    bool isPartialStringValid(std::string_view partialString,
                              std::string* newEditingString = nullptr,
                              std::string* errorDescription = nullptr) const;
};
