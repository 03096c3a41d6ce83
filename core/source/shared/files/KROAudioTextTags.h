// Metadata as the name and text pairs of a tag format that stores plain
// texts: the info chunk of CAF ("coreaudio"), Vorbis comments ("vorbis") and
// the iTunes-style atoms of M4A ("quicktime"). Which name means which key
// comes from the metadata table, as for ID3.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "KROPropertyList.h"

class KROAudioTextTags {
public:
    using Pairs = std::vector<std::pair<std::string, std::string>>;

    // Stores each pair under the key whose name for the format matches,
    // ignoring case (Vorbis comment names are case-blind); values of real
    // keys as numbers. A name the table does not know is kept under its own
    // name, so that nothing a file holds is hidden. Later pairs win.
    static void read(std::string_view format, const Pairs& pairs, KROPropertyList& metadata);

    // The pairs for the keys of metadata that have a name in the format, in
    // table order, each value as its text (a number without a fraction as an
    // integer). Each key written is removed from metadata, as handlers
    // consume what they write.
    static Pairs take(std::string_view format, KROPropertyList& metadata);
};
