// Reads a classic resource fork, raw or wrapped in an
// AppleDouble (or AppleSingle) file, into KROFileResource objects. Nothing
// here touches a file; KROResourceForkFinder finds the bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "KROFileResource.h"

class KROResourceForkParser {
public:
    using Bytes = std::span<const std::uint8_t>;

    // AppleDouble 0x00051607 and AppleSingle 0x00051600, the first four bytes big-endian.
    static constexpr std::uint32_t appleDoubleMagic = 0x00051607;
    static constexpr std::uint32_t appleSingleMagic = 0x00051600;
    // The entry that holds the resource fork in either.
    static constexpr std::uint32_t resourceForkEntryID = 2;

    static bool isAppleDouble(Bytes container);

    // The resource fork held by a container: the entry 2 of an AppleDouble or
    // AppleSingle file, or the bytes as they stand when they are not one. None
    // when the container is damaged (an entry past its end) or has no entry 2.
    static std::optional<Bytes> forkFromContainer(Bytes container);

    // The resources of a whole fork, types in list order and within a type
    // in reference order. None when a check of the header fails (data offset
    // plus data length is the map offset, map offset plus map length is the
    // fork's length, both lists start inside it) or a list entry or resource
    // data lies outside the fork, since reading past it is no option; names
    // are cut at the fork's end. An empty array when the fork is empty. A
    // caller gets none again on every try, so it parses anew next time.
    static std::optional<KROFileResources> resourcesFromFork(Bytes fork);

    // Mac Roman bytes as UTF-8.
    static std::string stringFromMacRoman(Bytes text);
};
