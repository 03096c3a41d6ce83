// The metadata table: which tag name stands for which metadata key, for each
// tag format. It is the resource KROAudioMetadata, an array of dictionaries
// with "key", "valueType" ("real" for values kept as numbers) and "formats",
// a name per format (id3v22, id3v23, id3v24, ape, ixml, aiff, coreaudio,
// quicktime, vorbis). An entry without a name for a format takes no part in
// it. The tag readers and writers load it afresh on each call, so a host may
// change the file while running.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class KROAudioMetadataTable {
public:
    struct Entry {
        std::string key;
        // The value is stored as a number rather than as text.
        bool isReal = false;
        // Format and name, in the order of the file.
        std::vector<std::pair<std::string, std::string>> names;

        // The name for the format, or null when the entry has none.
        const std::string* nameForFormat(std::string_view format) const;
    };

    // None when the resource is missing or is no array. Entries without a
    // string key are left out.
    static std::optional<KROAudioMetadataTable> load();

    const std::vector<Entry>& entries() const { return entries_; }

private:
    std::vector<Entry> entries_;
};
