// Numbers as the fixed-width fields of file headers take them, and the
// tables of values that several formats share.
#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <limits>

#include "KROStringHelpers.h"

namespace kro {

// A number as an integer of the type, truncated; values beyond its range
// give its ends and NaN gives 0, where a plain conversion is undefined.
template <typename Integer> Integer saturated(double value) {
    constexpr auto low = static_cast<double>(std::numeric_limits<Integer>::min());
    constexpr auto high = static_cast<double>(std::numeric_limits<Integer>::max());
    if (std::isnan(value)) {
        return 0;
    }
    return value <= low    ? std::numeric_limits<Integer>::min()
           : value >= high ? std::numeric_limits<Integer>::max()
                           : static_cast<Integer>(value);
}

template <typename Integer> Integer clamped(Integer value, Integer low, Integer high) {
    return value < low ? low : value > high ? high : value;
}

// The root notes of loop files, by semitone above C.
constexpr std::array<const char*, 12> musicalKeys = {"C",  "C#", "D",  "Eb", "E",  "F",
                                                     "F#", "G",  "Ab", "A",  "Bb", "B"};

// The instrument keys of sampler chunks, in the order of the WAVE 'inst' chunk.
constexpr std::array<const char*, 7> instrumentKeys = {
    "baseNote", "detune", "gain", "lowNote", "highNote", "lowVelocity", "highVelocity"};

struct InfoEntry {
    std::uint32_t code;
    const char* key;
};
// The texts of a RIFF INFO list, in the order in which they are written.
constexpr std::array<InfoEntry, 21> infoEntries = {{
    {fourCC("INAM"), "name"},
    {fourCC("IGNR"), "genre"},
    {fourCC("IKEY"), "keywords"},
    {fourCC("IAUT"), "author"},
    {fourCC("IART"), "originalArtist"},
    {fourCC("IMED"), "originalMedium"},
    {fourCC("IDIM"), "originalDimensions"},
    {fourCC("ISRF"), "digitizationSource"},
    {fourCC("ICMS"), "commissionedBy"},
    {fourCC("ISRC"), "sourceSupplier"},
    {fourCC("IENG"), "engineers"},
    {fourCC("ITCH"), "digitizer"},
    {fourCC("ICRP"), "cropped"},
    {fourCC("IARL"), "archivalLocation"},
    {fourCC("IPRD"), "product"},
    {fourCC("ICOP"), "copyright"},
    {fourCC("ISFT"), "softwarePackage"},
    {fourCC("ICRD"), "creationDate"},
    {fourCC("ICMT"), "comments"},
    {fourCC("IANN"), "annotation"},
    {fourCC("ISBJ"), "subject"},
}};

} // namespace kro
