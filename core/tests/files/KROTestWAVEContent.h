// The WAVE handler with a lower limit on sample bytes, so that the tests
// reach the size limit of the write protocol without writing gigabytes.
#pragma once

#include "KROAudioFileWAVEContent.h"

class KROTestWAVEContent : public KROAudioFileWAVEContent {
public:
    static std::string staticClassName() { return "KROTestWAVEContent"; }
    std::string className() const override { return staticClassName(); }

    std::uint64_t sizeLimit = 0xFFFFFFFFu;

protected:
    std::uint64_t maximumAudioDataLength() const override { return sizeLimit; }
};
