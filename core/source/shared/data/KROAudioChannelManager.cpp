#include "KROAudioChannelManager.h"

#include <set>

#include "KROLocalizedString.h"
#include "KROPropertyList.h"
#include "KROResources.h"
#include "KROStringHelpers.h"
#include "KROStringWithFormat.h"

namespace {

std::string localizedEntry(const KROPropertyList& entry, std::string_view key) {
    const KROPropertyList* value = entry.objectForKey(key);
    const std::string* text = value ? value->stringValue() : nullptr;
    return text ? KROLocalizedString(*text) : std::string();
}

std::shared_ptr<KROAudioChannelSet> setFromEntry(const KROPropertyList& entry) {
    const KROPropertyList* identifier = entry.objectForKey("identifier");
    const std::string* identifierText = identifier ? identifier->stringValue() : nullptr;
    auto set = KROAudioChannelSet::setWithName(localizedEntry(entry, "name"),
                                               identifierText ? *identifierText : "");
    if (const KROPropertyList* channels = entry.objectForKey("descriptions")) {
        for (std::size_t index = 0; index < channels->count(); ++index) {
            const KROPropertyList& channel = *channels->objectAtIndex(index);
            set->insertObjectInDescriptionsAtIndex(
                KROAudioChannelDescription::descriptionWithName(
                    localizedEntry(channel, "name"), localizedEntry(channel, "abbreviation")),
                set->countOfDescriptions());
        }
    }
    return set;
}

std::shared_ptr<KROAudioChannelSet> genericSet(std::size_t count) {
    const long channels = static_cast<long>(count);
    auto set = KROAudioChannelSet::setWithName(
        KROStringWithFormatArguments(KROLocalizedString("KROAudioChannelSet_undefined"), channels),
        KROStringWithFormatArguments("%ld_channel", channels));
    const std::string channelName = KROLocalizedString("KROAudioChannelDescription_name_undefined");
    for (long number = 1; number <= channels; ++number) {
        set->insertObjectInDescriptionsAtIndex(
            KROAudioChannelDescription::descriptionWithName(
                KROStringWithFormatArguments(channelName, number),
                KROStringWithFormatArguments("%ld", number)),
            set->countOfDescriptions());
    }
    return set;
}

std::set<std::string> lowercasedSet(const std::vector<std::string>& abbreviations) {
    std::set<std::string> lowered;
    for (const std::string& abbreviation : abbreviations) {
        lowered.insert(kro::lowercaseASCII(abbreviation));
    }
    return lowered;
}

std::vector<std::string> abbreviationsOf(const KROAudioChannelSet& set) {
    std::vector<std::string> abbreviations;
    for (const auto& description : set.enumeratorOfDescriptions()) {
        abbreviations.push_back(description->abbreviation());
    }
    return abbreviations;
}

} // namespace

KROAudioChannelManager& KROAudioChannelManager::manager() {
    static KROAudioChannelManager* const manager = new KROAudioChannelManager();
    return *manager;
}

KROAudioChannelManager::KROAudioChannelManager() {
    init();
}

void KROAudioChannelManager::init() {
    const auto resource = KROPropertyList::fromFile(KROResourcePath("KROAudioChannelSets.plist"));
    if (!resource || !resource->isArray()) {
        return;
    }
    for (const KROPropertyList& entry : *resource->arrayValue()) {
        if (entry.isDictionary()) {
            sets_.push_back(setFromEntry(entry));
        }
    }
}

std::vector<std::shared_ptr<KROAudioChannelSet>> KROAudioChannelManager::sets() const {
    std::lock_guard guard(lock_);
    return sets_;
}

std::shared_ptr<KROAudioChannelSet>
KROAudioChannelManager::setForNumberOfChannels(std::size_t count) {
    std::lock_guard guard(lock_);
    for (const auto& set : sets_) {
        if (set->countOfDescriptions() == count) {
            return set;
        }
    }
    sets_.push_back(genericSet(count));
    return sets_.back();
}

std::shared_ptr<KROAudioChannelSet> KROAudioChannelManager::setForChannelAbbreviations(
    const std::vector<std::string>& abbreviations) const {
    const std::set<std::string> wanted = lowercasedSet(abbreviations);
    std::lock_guard guard(lock_);
    for (const auto& set : sets_) {
        if (lowercasedSet(abbreviationsOf(*set)) == wanted) {
            return set;
        }
    }
    return nullptr;
}
