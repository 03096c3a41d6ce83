#include "KROAudioMetadataTable.h"

#include "KROPropertyList.h"
#include "KROResources.h"

namespace {

KROAudioMetadataTable::Entry entryOfDictionary(const KROPropertyList& dictionary) {
    KROAudioMetadataTable::Entry entry;
    entry.key = *dictionary.objectForKey("key")->stringValue();
    const KROPropertyList* valueType = dictionary.objectForKey("valueType");
    entry.isReal = valueType && valueType->stringValue() && *valueType->stringValue() == "real";
    const KROPropertyList* formats = dictionary.objectForKey("formats");
    if (formats && formats->dictionaryValue()) {
        for (const auto& [format, name] : *formats->dictionaryValue()) {
            if (name.stringValue()) {
                entry.names.emplace_back(format, *name.stringValue());
            }
        }
    }
    return entry;
}

} // namespace

const std::string* KROAudioMetadataTable::Entry::nameForFormat(std::string_view format) const {
    for (const auto& [entryFormat, name] : names) {
        if (entryFormat == format) {
            return &name;
        }
    }
    return nullptr;
}

std::optional<KROAudioMetadataTable> KROAudioMetadataTable::load() {
    const auto list = KROPropertyList::fromFile(KROResourcePath("KROAudioMetadata.plist"));
    if (!list || !list->arrayValue()) {
        return std::nullopt;
    }
    KROAudioMetadataTable table;
    for (const KROPropertyList& item : *list->arrayValue()) {
        const KROPropertyList* key = item.objectForKey("key");
        if (key && key->stringValue()) {
            table.entries_.push_back(entryOfDictionary(item));
        }
    }
    return table;
}
