#include "KROIOAudioProcessor.h"

#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KROIOAudioProcessor, KROAudioProcessor)
