#include "KROAudioTextTags.h"

#include <cctype>
#include <cmath>
#include <cstdio>

#include "KROAudioMetadataTable.h"
#include "KROTextNumbers.h"

namespace {

bool sameNameIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i]))) {
            return false;
        }
    }
    return true;
}

std::string textOfValue(const KROPropertyList& value) {
    if (const std::string* text = value.stringValue()) {
        return *text;
    }
    if (value.isInteger()) {
        return std::to_string(value.longValue());
    }
    const double number = value.doubleValue(NAN);
    if (!std::isnan(number)) {
        if (number == std::floor(number) && std::fabs(number) < 1e15) {
            return std::to_string(static_cast<long long>(number));
        }
        char text[32];
        std::snprintf(text, sizeof text, "%.10g", number);
        return text;
    }
    return value.description();
}

} // namespace

void KROAudioTextTags::read(std::string_view format, const Pairs& pairs,
                            KROPropertyList& metadata) {
    const auto table = KROAudioMetadataTable::load();
    const std::vector<KROAudioMetadataTable::Entry> none;
    const auto& entries = table ? table->entries() : none;
    for (const auto& [name, text] : pairs) {
        bool known = false;
        for (const auto& entry : entries) {
            const std::string* entryName = entry.nameForFormat(format);
            if (entryName && sameNameIgnoringCase(*entryName, name)) {
                known = true;
                metadata.setObjectForKey(entry.key, entry.isReal
                                                        ? KROPropertyList(kro::doubleValue(text))
                                                        : KROPropertyList(text));
            }
        }
        if (!known && !name.empty()) {
            metadata.setObjectForKey(name, KROPropertyList(text));
        }
    }
}

KROAudioTextTags::Pairs KROAudioTextTags::take(std::string_view format, KROPropertyList& metadata) {
    Pairs pairs;
    const auto table = KROAudioMetadataTable::load();
    if (!table) {
        return pairs;
    }
    for (const auto& entry : table->entries()) {
        const std::string* name = entry.nameForFormat(format);
        const KROPropertyList* value = metadata.objectForKey(entry.key);
        if (name && value) {
            pairs.emplace_back(*name, textOfValue(*value));
            metadata.removeObjectForKey(entry.key);
        }
    }
    return pairs;
}
