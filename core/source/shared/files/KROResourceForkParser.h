// Part 3.1, loadResources: reads a classic resource fork, raw or wrapped in an
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

    // Steps 2 to 8 of loadResources over a whole fork. None when a check of
    // step 2 fails or a list entry or resource data lies outside the fork
    // (Part 3.1 leaves them unchecked; reading past the fork is no option);
    // names are cut at the fork's end. An empty array when the fork is empty.
    static std::optional<KROFileResources> resourcesFromFork(Bytes fork);

    // Mac Roman bytes as UTF-8.
    static std::string stringFromMacRoman(Bytes text);
};
