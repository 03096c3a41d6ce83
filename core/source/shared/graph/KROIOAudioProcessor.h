// The meeting point of an input chain and a render chain. The class adds
// nothing: it is a mark at which both walks of the stream stop. A subclass
// bridges the two threads and clocks itself, as KROAudioPlaythrough does
// through a ring buffer.
#pragma once

#include "KROAudioProcessor.h"

class KROIOAudioProcessor : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KROIOAudioProcessor)
};
