// The process-wide list of known channel layouts, read once from the resource
// KROAudioChannelSets.plist and grown on demand with a generic set for each
// channel count it does not know. The order of the resource decides which
// layout is the default for a count. A lock guards the list, so file
// handlers on any thread may ask.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "KROAudioChannelSet.h"
#include "KROObject.h"

class KROAudioChannelManager : public KROObject {
    KRO_DECLARE_CLASS(KROAudioChannelManager)

public:
    // The one manager, made on first use and never freed.
    static KROAudioChannelManager& manager();
    KROAudioChannelManager(const KROAudioChannelManager&) = delete;
    KROAudioChannelManager& operator=(const KROAudioChannelManager&) = delete;

    // The resource's sets in its order, then the generic ones as they were made.
    std::vector<std::shared_ptr<KROAudioChannelSet>> sets() const;

    // The first set with that many channels; for an unknown count a generic
    // set ("6 Channels", channels "Channel 1" ... abbreviated "1" ...) is
    // made and kept, so the next request returns the same object.
    std::shared_ptr<KROAudioChannelSet> setForNumberOfChannels(std::size_t count);

    // The first set whose abbreviations, without regard to case, order or
    // repeats, are exactly those given; none when no set has them.
    std::shared_ptr<KROAudioChannelSet>
    setForChannelAbbreviations(const std::vector<std::string>& abbreviations) const;

private:
    KROAudioChannelManager();
    // Reads the resource; a missing or malformed one leaves the list empty.
    void init();

    mutable std::mutex lock_;
    std::vector<std::shared_ptr<KROAudioChannelSet>> sets_;
};
