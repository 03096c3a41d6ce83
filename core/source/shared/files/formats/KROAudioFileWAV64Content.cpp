#include "KROAudioFileWAV64Content.h"

#include <algorithm>
#include <array>
#include <limits>

#include "KROAudioFileChunk.h"
#include "KROAudioFileFieldValues.h"
#include "KROClassRegistry.h"
#include "KROError.h"
#include "KROStringHelpers.h"
#include "KROURLExtension.h"
#include "KROWAV64ChunkList.h"

KRO_REGISTER_CLASS(KROAudioFileWAV64Content, KROAudioFileWAVEContent)

namespace {

using kro::fourCC;

// The tail of the identifiers of the riff header.
constexpr KROGUIDTail riffTail = {0x2E, 0x91, 0xCF, 0x11, 0xA5, 0xD6,
                                  0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00};
// The tail of the identifiers named by a four-character code ('wave', 'fmt ', 'data' ...).
constexpr KROGUIDTail codeTail = {0xF3, 0xAC, 0xD3, 0x11, 0x8C, 0xD1,
                                  0x00, 0xC0, 0x4F, 0x8E, 0xDB, 0x8A};

// The chunks whose identifiers are not codes: the first four bytes, read
// big-endian, and the tail. The WAVE code is the chunk of the same body.
struct Identifier {
    std::uint32_t waveCode;
    std::uint32_t code;
    KROGUIDTail tail;
};
constexpr std::uint32_t markerListCode = 0x5662F7AB;
constexpr std::uint32_t summaryListCode = 0xBC945F92;
constexpr std::array<Identifier, 5> identifiers = {{
    {markerListCode,
     markerListCode,
     {0x2D, 0x39, 0xD2, 0x11, 0x86, 0xC7, 0x00, 0xC0, 0x4F, 0x8E, 0xDB, 0x8A}},
    {summaryListCode,
     summaryListCode,
     {0x5A, 0x52, 0xD2, 0x11, 0x86, 0xDC, 0x00, 0xC0, 0x4F, 0x8E, 0xDB, 0x8A}},
    {fourCC("smpl"),
     0x982AA207,
     {0x9A, 0xF2, 0xA4, 0x4F, 0xB7, 0xB5, 0x57, 0xC9, 0xD3, 0x71, 0xDB, 0x38}},
    {fourCC("acid"),
     0x5287535C,
     {0x45, 0xE3, 0x78, 0x4F, 0x83, 0xB8, 0x55, 0x19, 0x35, 0xB4, 0xC6, 0xF7}},
    {fourCC("strc"),
     0x5CE04B6A,
     {0xCB, 0x08, 0xEE, 0x40, 0xAF, 0x32, 0x4E, 0x53, 0xBB, 0x5E, 0xBA, 0x5D}},
}};

// The code under which a chunk of the WAVE body is found in a Wave64 file.
std::uint32_t codeOf(std::uint32_t waveCode) {
    const auto found = std::find_if(identifiers.begin(), identifiers.end(),
                                    [&](const Identifier& id) { return id.waveCode == waveCode; });
    return found == identifiers.end() ? waveCode : found->code;
}

constexpr std::uint64_t alignment = 8;
constexpr std::uint64_t headerSize = 24;

} // namespace

// ---------------------------------------------------------------- class side

std::string KROAudioFileWAV64Content::format() const {
    return "Wave64 File";
}

std::string KROAudioFileWAV64Content::extension() const {
    return "w64";
}

bool KROAudioFileWAV64Content::supportsURL(const std::filesystem::path& url) const {
    return kro::lowercaseASCII(url.extension().string()) == ".w64" && fileStartsWith(url, "riff");
}

KROErrorPtr KROAudioFileWAV64Content::errorWithCode(std::int64_t code,
                                                    const std::string& action) const {
    return KROAudioFileWAV64ContentError::errorWithCode(code, action);
}

std::uint64_t KROAudioFileWAV64Content::maximumAudioDataLength() const {
    return std::numeric_limits<std::uint64_t>::max();
}

void KROAudioFileWAV64Content::startChunk(KROAudioFileChunk& chunk, std::uint32_t code) const {
    chunk.reset();
    const auto found = std::find_if(identifiers.begin(), identifiers.end(),
                                    [&](const Identifier& id) { return id.waveCode == code; });
    chunk.setType(found == identifiers.end() ? code : found->code);
    chunk.setGUID(found == identifiers.end() ? codeTail : found->tail);
}

// ---------------------------------------------------------------- reading

bool KROAudioFileWAV64Content::parse(KROErrorPtr* error) {
    if (!openFileReader(error)) {
        return false;
    }
    KROWAV64ChunkList chunks;
    chunks.initWithFileReader(*fileReader_);
    if (!readFormatAndAudioData(chunks, error)) {
        return false;
    }
    // Only chunks the file holds in full are read: a size that runs past the
    // end would have the readers walk counts of records that are not there.
    const auto loaded = [&chunks](std::uint32_t code) -> std::shared_ptr<KROAudioFileChunk> {
        const auto chunk = chunks.chunkOfType(code);
        return chunk && chunk->data() ? chunk : nullptr;
    };
    if (const auto chunk = loaded(markerListCode)) {
        readMarkerList(*chunk);
    }
    if (const auto chunk = loaded(codeOf(fourCC("smpl")))) {
        readSamplerChunk(*chunk);
    }
    if (const auto chunk = loaded(codeOf(fourCC("acid")))) {
        // The root note is not read from Wave64 files.
        const bool hadKey = metadata().objectForKey("musicalKey") != nullptr;
        readAcidChunk(*chunk);
        if (!hadKey) {
            metadata().removeObjectForKey("musicalKey");
        }
    }
    if (const auto chunk = loaded(codeOf(fourCC("strc")))) {
        readSliceChunk(*chunk);
    }
    if (const auto chunk = loaded(fourCC("iXML"))) {
        parseIXMLChunk(*chunk);
    }
    if (const auto chunk = loaded(fourCC("bext"))) {
        readBroadcastChunk(*chunk);
        // The dates stay text here, as they stand in the chunk.
        for (const auto& [key, offset, size] :
             {std::tuple{"originationDate", 320, 10}, std::tuple{"originationTime", 330, 8}}) {
            if (auto text = chunk->stringAtPosition(offset, size)) {
                metadata().setObjectForKey(key, std::move(*text));
            }
        }
    }
    if (const auto chunk = loaded(summaryListCode)) {
        readSummaryList(*chunk);
    }
    return true;
}

void KROAudioFileWAV64Content::readMarkerList(const KROAudioFileChunk& chunk) {
    const auto count = static_cast<std::uint32_t>(chunk.intValueAtPosition(0));
    std::uint64_t offset = 4;
    for (std::uint32_t index = 0; index < count && offset + 32 <= chunk.dataLength(); ++index) {
        const auto position = static_cast<double>(chunk.longLongValueAtPosition(offset + 8));
        const std::int64_t length = chunk.longLongValueAtPosition(offset + 16);
        const auto nameLength = static_cast<std::uint32_t>(chunk.intValueAtPosition(offset + 24));
        auto label = KROAudioLabel::labelOfType(length == -1 ? "marker" : "region");
        label->setLocation(position / sampleRate());
        if (length != -1) {
            label->setLength(static_cast<double>(length) / sampleRate());
        }
        label->setValueForUndefinedKey(KROPropertyList(chunk.intValueAtPosition(offset)), "id");
        if (auto name = chunk.unicharStringAtPosition(offset + 32, nameLength)) {
            label->setValueForUndefinedKey(KROPropertyList(std::move(*name)), "name");
        }
        labels().push_back(std::move(label));
        offset += 32 + nameLength;
    }
}

void KROAudioFileWAV64Content::readSummaryList(const KROAudioFileChunk& chunk) {
    const auto count = static_cast<std::uint32_t>(chunk.intValueAtPosition(0));
    std::uint64_t offset = 4;
    for (std::uint32_t index = 0; index < count && offset + 8 <= chunk.dataLength(); ++index) {
        const std::uint32_t code = chunk.fourCharCodeAtPosition(offset);
        const auto length = static_cast<std::uint32_t>(chunk.intValueAtPosition(offset + 4));
        const auto entry =
            std::find_if(kro::infoEntries.begin(), kro::infoEntries.end(),
                         [code](const kro::InfoEntry& info) { return info.code == code; });
        auto text = chunk.unicharStringAtPosition(offset + 8, length);
        if (entry != kro::infoEntries.end() && text) {
            metadata().setObjectForKey(entry->key, std::move(*text));
        }
        offset += 8 + length;
    }
}

// ---------------------------------------------------------------- writing

bool KROAudioFileWAV64Content::beginWrite(KROErrorPtr* error) {
    if (encoding() == fourCC("ulaw")) {
        setBitDepth(8);
        setIsFloatingPoint(false);
    } else if (isFloatingPoint()) {
        setBitDepth(32);
    }
    setAudioDataByteOrder(KROAudioFileChunk::littleEndian);
    if (!beginLinearWrite(error)) {
        return false;
    }
    KROAudioFileChunk chunk;
    chunk.setFile(fileWriter_.get());
    chunk.setByteOrder(KROAudioFileChunk::littleEndian);
    chunk.setByteCountMultiple(alignment);
    chunk.setUsesLongLongSizes(true);
    chunk.setSizeIncludesNameAndSize(true);
    // The header without a chunk header of its own; endWrite patches its size.
    chunk.appendFourCharCode(fourCC("riff"));
    chunk.appendGUID(riffTail);
    chunk.appendLongLong(0);
    chunk.appendFourCharCode(fourCC("wave"));
    chunk.appendGUID(codeTail);
    if (!chunk.appendToFile(error) || !writeFormatChunk(chunk, error)) {
        return false;
    }
    // The sampler holds the loops of a known direction.
    std::int32_t loops = 0;
    for (const auto& label : labels()) {
        const KROPropertyList* type = label->valueForUndefinedKey("loopType");
        const std::string* name = type ? type->stringValue() : nullptr;
        if (label->type() == "loop" && name &&
            (*name == "forward" || *name == "forwardBackward" || *name == "backward")) {
            ++loops;
        }
    }
    const bool written = (loops == 0 || writeSamplerChunk(chunk, error)) &&
                         writeMarkerList(chunk, loops + 1, error) &&
                         writeSummaryList(chunk, error) && writeBroadcastChunk(chunk, error) &&
                         writeIXMLChunk(chunk, error);
    if (!written) {
        return false;
    }
    startChunk(chunk, fourCC("data"));
    if (!chunk.appendToFile(error) || !fileWriter_->getPosition(audioDataPosition_, error)) {
        return false;
    }
    dataChunkSizePosition_ = audioDataPosition_ - 8;
    return true;
}

bool KROAudioFileWAV64Content::writeMarkerList(KROAudioFileChunk& chunk,
                                               std::int32_t firstIdentifier, KROErrorPtr* error) {
    std::vector<const KROAudioLabel*> points;
    for (const char* type : {"marker", "region"}) {
        for (const auto& label : labels()) {
            if (label->type() == type) {
                points.push_back(label.get());
            }
        }
    }
    if (points.empty()) {
        return true;
    }
    startChunk(chunk, markerListCode);
    chunk.appendInt(static_cast<std::int32_t>(points.size()));
    std::int32_t identifier = firstIdentifier;
    for (const KROAudioLabel* point : points) {
        chunk.appendInt(identifier++);
        chunk.appendInt(0);
        chunk.appendLongLong(framesOfSeconds(point->start()));
        chunk.appendLongLong(point->type() == "marker" ? -1 : framesOfSeconds(point->length()));
        const std::uint64_t lengthPosition = chunk.dataLength();
        chunk.appendInt(0);
        chunk.appendInt(0);
        chunk.appendAsUnicodeString(point->valueForUndefinedKey("name"));
        // The text and its terminator.
        chunk.replaceIntAtPosition(
            lengthPosition, static_cast<std::int32_t>(chunk.dataLength() - lengthPosition - 8));
    }
    return chunk.appendToFile(error);
}

bool KROAudioFileWAV64Content::appendMetadataForKey(std::string_view key, std::uint32_t type,
                                                    KROAudioFileChunk& chunk) {
    const KROPropertyList* value = metadata().objectForKey(key);
    if (!value) {
        return false;
    }
    chunk.appendFourCharCode(type);
    const std::uint64_t lengthPosition = chunk.dataLength();
    chunk.appendInt(0);
    chunk.appendAsUnicodeString(value);
    chunk.replaceIntAtPosition(lengthPosition,
                               static_cast<std::int32_t>(chunk.dataLength() - lengthPosition - 4));
    metadata().removeObjectForKey(key);
    return true;
}

bool KROAudioFileWAV64Content::writeSummaryList(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    startChunk(chunk, summaryListCode);
    chunk.appendInt(0);
    std::int32_t count = 0;
    for (const kro::InfoEntry& entry : kro::infoEntries) {
        count += appendMetadataForKey(entry.key, entry.code, chunk) ? 1 : 0;
    }
    if (count == 0) {
        return true;
    }
    chunk.replaceIntAtPosition(0, count);
    return chunk.appendToFile(error);
}

bool KROAudioFileWAV64Content::endWrite(KROErrorPtr* error) {
    if (!fileWriter_) {
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_writing");
    }
    const std::uint64_t bytes = audioDataLengthOfFrames(frames());
    const std::uint64_t pad = (alignment - (bytes + headerSize) % alignment) % alignment;
    if (pad != 0 && fileWriter_->setPositionToEnd()) {
        fileWriter_->writeBuffer("\0\0\0\0\0\0\0", pad);
    }
    KROAudioFileChunk chunk;
    chunk.setFile(fileWriter_.get());
    chunk.setByteOrder(KROAudioFileChunk::littleEndian);
    chunk.setByteCountMultiple(alignment);
    chunk.setUsesLongLongSizes(true);
    chunk.setSizeIncludesNameAndSize(true);
    std::uint64_t end = 0;
    // The writer puts integers out in host order, which is little-endian here.
    const bool done =
        fileWriter_->flush(error) && fileWriter_->setPosition(dataChunkSizePosition_, error) &&
        fileWriter_->writeLongLongValue(static_cast<std::int64_t>(bytes + headerSize), error) &&
        writeAcidChunk(chunk, error) && writeSliceChunk(chunk, error) &&
        fileWriter_->setPositionToEnd(error) && fileWriter_->getPosition(end, error) &&
        fileWriter_->setPosition(16, error) &&
        fileWriter_->writeLongLongValue(static_cast<std::int64_t>(end), error) &&
        fileWriter_->flush(error);
    closeFileWriter();
    return done;
}
