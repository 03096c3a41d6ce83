#include "KROResourceForkParser.h"

#include <algorithm>
#include <array>
#include <string>

namespace {

using Bytes = KROResourceForkParser::Bytes;

// A bounds-checked big-endian view of the fork. Every read answers none when
// it would leave the bytes: a fork's lists are not trusted, and code that
// reads untrusted bytes must never read past a buffer.
class BigEndianView {
public:
    explicit BigEndianView(Bytes bytes) : bytes_(bytes) {}

    std::uint64_t size() const { return bytes_.size(); }

    bool contains(std::uint64_t offset, std::uint64_t length) const {
        return offset <= bytes_.size() && length <= bytes_.size() - offset;
    }

    std::optional<std::uint32_t> u32(std::uint64_t offset) const {
        if (!contains(offset, 4)) {
            return std::nullopt;
        }
        const std::uint8_t* p = bytes_.data() + offset;
        return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) |
               (std::uint32_t{p[2]} << 8) | std::uint32_t{p[3]};
    }

    std::optional<std::uint16_t> u16(std::uint64_t offset) const {
        if (!contains(offset, 2)) {
            return std::nullopt;
        }
        const std::uint8_t* p = bytes_.data() + offset;
        return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
    }

    std::optional<std::int16_t> s16(std::uint64_t offset) const {
        if (auto value = u16(offset)) {
            return static_cast<std::int16_t>(*value);
        }
        return std::nullopt;
    }

    std::optional<std::int8_t> s8(std::uint64_t offset) const {
        if (!contains(offset, 1)) {
            return std::nullopt;
        }
        return static_cast<std::int8_t>(bytes_[offset]);
    }

    std::optional<Bytes> range(std::uint64_t offset, std::uint64_t length) const {
        if (!contains(offset, length)) {
            return std::nullopt;
        }
        return bytes_.subspan(offset, length);
    }

private:
    Bytes bytes_;
};

// The positions that the header gives, all absolute within the fork.
struct ForkLayout {
    std::uint64_t dataOffset = 0;
    std::uint64_t typeList = 0;
    std::uint64_t nameList = 0;
};

// The header's checks. None when one fails.
std::optional<ForkLayout> forkLayout(const BigEndianView& fork) {
    const auto dataOffset = fork.u32(0);
    const auto mapOffset = fork.u32(4);
    const auto dataLength = fork.u32(8);
    const auto mapLength = fork.u32(12);
    if (!dataOffset || !mapOffset || !dataLength || !mapLength) {
        return std::nullopt;
    }
    if (std::uint64_t{*dataOffset} + *dataLength != *mapOffset ||
        std::uint64_t{*mapOffset} + *mapLength != fork.size()) {
        return std::nullopt;
    }
    const auto typeListOffset = fork.u16(std::uint64_t{*mapOffset} + 24);
    const auto nameListOffset = fork.u16(std::uint64_t{*mapOffset} + 26);
    if (!typeListOffset || !nameListOffset) {
        return std::nullopt;
    }
    ForkLayout layout{*dataOffset, std::uint64_t{*mapOffset} + *typeListOffset,
                      std::uint64_t{*mapOffset} + *nameListOffset};
    if (layout.typeList > fork.size() || layout.nameList > fork.size()) {
        return std::nullopt;
    }
    return layout;
}

// A Pascal string of Mac Roman text, cut at the fork's end. Writers
// do leave names running past it (libsndfile's SD2 forks end inside their
// last name), and a reader that wants their resources must take them. The
// length byte is read as signed; sign-extended, a negative length runs to
// the end of the fork like any other too long one.
std::string resourceName(const BigEndianView& fork, const ForkLayout& layout,
                         std::uint16_t nameOffset) {
    if (nameOffset == 0xFFFF) {
        return std::string();
    }
    const std::uint64_t position = layout.nameList + nameOffset;
    const auto length = fork.s8(position);
    if (!length) {
        return std::string();
    }
    const std::uint64_t start = position + 1;
    const std::uint64_t available = fork.size() - std::min(start, fork.size());
    const std::uint64_t count =
        std::min(static_cast<std::uint64_t>(std::int64_t{*length}), available);
    return KROResourceForkParser::stringFromMacRoman(*fork.range(start, count));
}

// The 32-bit length at the data position and the bytes after it.
std::optional<KROData> resourceData(const BigEndianView& fork, std::uint64_t position) {
    const auto length = fork.u32(position);
    if (!length) {
        return std::nullopt;
    }
    const auto bytes = fork.range(position + 4, *length);
    if (!bytes) {
        return std::nullopt;
    }
    return KROData(bytes->begin(), bytes->end());
}

// One 12-byte reference entry of a type.
std::shared_ptr<KROFileResource> resourceAt(const BigEndianView& fork, const ForkLayout& layout,
                                            std::uint32_t type, std::uint64_t entry) {
    const auto ID = fork.s16(entry);
    const auto nameOffset = fork.u16(entry + 2);
    // Kept: the 32 bits are used whole; the attribute byte on top is not
    // masked off, so a resource with attribute bits set resolves elsewhere.
    const auto dataOffset = fork.u32(entry + 4);
    if (!ID || !nameOffset || !dataOffset) {
        return nullptr;
    }
    auto data = resourceData(fork, layout.dataOffset + *dataOffset);
    if (!data) {
        return nullptr;
    }
    return std::make_shared<KROFileResource>(
        type, std::int64_t{*ID}, resourceName(fork, layout, *nameOffset), std::move(*data));
}

// What the walk has taken so far. In a well-formed fork no two references
// share their 12 bytes and no two resources share their data, so the walk can
// never take more than the fork holds; a damaged fork whose lists overlap
// would otherwise multiply one stretch of bytes without end.
struct WalkBudget {
    std::uint64_t references = 0;
    std::uint64_t dataBytes = 0;

    bool take(const KROFileResource& resource, std::uint64_t forkSize) {
        references += 1;
        dataBytes += resource.data().size() + 4;
        return references * 12 <= forkSize && dataBytes <= forkSize;
    }
};

// The references of one 8-byte type entry; false when an entry lies outside.
bool appendResourcesOfType(const BigEndianView& fork, const ForkLayout& layout,
                           std::uint64_t typeEntry, KROFileResources& resources,
                           WalkBudget& budget) {
    const auto type = fork.u32(typeEntry);
    const auto countLessOne = fork.s16(typeEntry + 4);
    const auto referenceList = fork.u16(typeEntry + 6);
    if (!type || !countLessOne || !referenceList) {
        return false;
    }
    // Counted "less one" like the number of types, so -1 means none.
    const std::int64_t count = std::int64_t{*countLessOne} + 1;
    for (std::int64_t index = 0; index < count; ++index) {
        const std::uint64_t entry = layout.typeList + *referenceList + 12 * std::uint64_t(index);
        auto resource = resourceAt(fork, layout, *type, entry);
        if (!resource || !budget.take(*resource, fork.size())) {
            return false;
        }
        resources.push_back(std::move(resource));
    }
    return true;
}

} // namespace

bool KROResourceForkParser::isAppleDouble(Bytes container) {
    const auto magic = BigEndianView(container).u32(0);
    return magic && (*magic == appleDoubleMagic || *magic == appleSingleMagic);
}

std::optional<KROResourceForkParser::Bytes>
KROResourceForkParser::forkFromContainer(Bytes container) {
    if (!isAppleDouble(container)) {
        return container;
    }
    // Magic, version, 16 bytes of filler, then the number of entries.
    const BigEndianView view(container);
    const auto entryCount = view.u16(24);
    if (!entryCount) {
        return std::nullopt;
    }
    for (std::uint64_t index = 0; index < *entryCount; ++index) {
        const std::uint64_t entry = 26 + 12 * index;
        const auto entryID = view.u32(entry);
        const auto offset = view.u32(entry + 4);
        const auto length = view.u32(entry + 8);
        if (!entryID || !offset || !length) {
            return std::nullopt;
        }
        if (*entryID == resourceForkEntryID) {
            return view.range(*offset, *length);
        }
    }
    return std::nullopt;
}

std::optional<KROFileResources> KROResourceForkParser::resourcesFromFork(Bytes bytes) {
    if (bytes.empty()) {
        return KROFileResources{};
    }
    const BigEndianView fork(bytes);
    const auto layout = forkLayout(fork);
    if (!layout) {
        return std::nullopt;
    }
    const auto typesLessOne = fork.s16(layout->typeList);
    if (!typesLessOne) {
        return std::nullopt;
    }
    KROFileResources resources;
    WalkBudget budget;
    const std::int64_t typeCount = std::int64_t{*typesLessOne} + 1;
    for (std::int64_t index = 0; index < typeCount; ++index) {
        const std::uint64_t typeEntry = layout->typeList + 2 + 8 * std::uint64_t(index);
        if (!appendResourcesOfType(fork, *layout, typeEntry, resources, budget)) {
            return std::nullopt;
        }
    }
    return resources;
}

std::string KROResourceForkParser::stringFromMacRoman(Bytes text) {
    static constexpr std::array<char16_t, 128> upperHalf = {
        0x00C4, 0x00C5, 0x00C7, 0x00C9, 0x00D1, 0x00D6, 0x00DC, 0x00E1, 0x00E0, 0x00E2, 0x00E4,
        0x00E3, 0x00E5, 0x00E7, 0x00E9, 0x00E8, 0x00EA, 0x00EB, 0x00ED, 0x00EC, 0x00EE, 0x00EF,
        0x00F1, 0x00F3, 0x00F2, 0x00F4, 0x00F6, 0x00F5, 0x00FA, 0x00F9, 0x00FB, 0x00FC, 0x2020,
        0x00B0, 0x00A2, 0x00A3, 0x00A7, 0x2022, 0x00B6, 0x00DF, 0x00AE, 0x00A9, 0x2122, 0x00B4,
        0x00A8, 0x2260, 0x00C6, 0x00D8, 0x221E, 0x00B1, 0x2264, 0x2265, 0x00A5, 0x00B5, 0x2202,
        0x2211, 0x220F, 0x03C0, 0x222B, 0x00AA, 0x00BA, 0x03A9, 0x00E6, 0x00F8, 0x00BF, 0x00A1,
        0x00AC, 0x221A, 0x0192, 0x2248, 0x2206, 0x00AB, 0x00BB, 0x2026, 0x00A0, 0x00C0, 0x00C3,
        0x00D5, 0x0152, 0x0153, 0x2013, 0x2014, 0x201C, 0x201D, 0x2018, 0x2019, 0x00F7, 0x25CA,
        0x00FF, 0x0178, 0x2044, 0x20AC, 0x2039, 0x203A, 0xFB01, 0xFB02, 0x2021, 0x00B7, 0x201A,
        0x201E, 0x2030, 0x00C2, 0x00CA, 0x00C1, 0x00CB, 0x00C8, 0x00CD, 0x00CE, 0x00CF, 0x00CC,
        0x00D3, 0x00D4, 0xF8FF, 0x00D2, 0x00DA, 0x00DB, 0x00D9, 0x0131, 0x02C6, 0x02DC, 0x00AF,
        0x02D8, 0x02D9, 0x02DA, 0x00B8, 0x02DD, 0x02DB, 0x02C7,
    };
    std::string utf8;
    utf8.reserve(text.size());
    for (std::uint8_t byte : text) {
        const char32_t code = byte < 0x80 ? byte : upperHalf[byte - 0x80];
        if (code < 0x80) {
            utf8 += static_cast<char>(code);
        } else if (code < 0x800) {
            utf8 += static_cast<char>(0xC0 | (code >> 6));
            utf8 += static_cast<char>(0x80 | (code & 0x3F));
        } else {
            utf8 += static_cast<char>(0xE0 | (code >> 12));
            utf8 += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            utf8 += static_cast<char>(0x80 | (code & 0x3F));
        }
    }
    return utf8;
}
