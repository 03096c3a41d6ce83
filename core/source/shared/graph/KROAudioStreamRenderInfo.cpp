#include "KROAudioStreamRenderInfo.h"

#include "KROClassRegistry.h"
#include "KROStringWithFormat.h"

KRO_REGISTER_CLASS(KROAudioStreamRenderInfo, KROAudioProcessor)

std::string KROAudioStreamRenderInfo::description() const {
    return KROStringWithFormatArguments("sampleTime: %qi", sampleTime());
}
