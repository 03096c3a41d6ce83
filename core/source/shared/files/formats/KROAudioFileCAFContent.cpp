#include "KROAudioFileCAFContent.h"

#include <endian.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "KROAudioFileChunk.h"
#include "KROAudioTextTags.h"
#include "KROCAFChunkList.h"
#include "KROClassRegistry.h"
#include "KROError.h"
#include "KROStringHelpers.h"

KRO_REGISTER_CLASS(KROAudioFileCAFContent, KROAudioFileContent)

namespace {

using kro::fourCC;

// The format flags of 'desc' for linear PCM.
constexpr std::uint32_t floatFlag = 1;
constexpr std::uint32_t littleEndianFlag = 2;
// A marker: type, frame position (a double), identifier, an SMPTE time of
// eight bytes, channel.
constexpr std::uint64_t markerSize = 28;
// Region markers carry these types; a plain marker has type 0.
constexpr std::uint32_t regionStart = fourCC("rbeg");
constexpr std::uint32_t regionEnd = fourCC("rend");
// The data chunk starts with an edit count.
constexpr std::uint64_t editCountSize = 4;

// The position of a marker in frames, or none for a value no file could mean.
std::optional<double> framePosition(const KROAudioFileChunk& chunk, std::uint64_t marker) {
    const double position = chunk.doubleValueAtPosition(marker + 4);
    if (!std::isfinite(position) || position < 0) {
        return std::nullopt;
    }
    return position;
}

void nameLabel(KROAudioLabel& label, const KROAudioFileChunk* strings, std::uint32_t identifier) {
    if (!strings) {
        return;
    }
    if (auto name = strings->stringForID(identifier)) {
        label.setValueForUndefinedKey(KROPropertyList(std::move(*name)), "name");
    }
}

void appendMarker(KROAudioFileChunk& chunk, std::uint32_t type, double frame,
                  std::uint32_t identifier) {
    chunk.appendInt(static_cast<std::int32_t>(type));
    chunk.appendDouble(frame);
    chunk.appendInt(static_cast<std::int32_t>(identifier));
    // No SMPTE time: its hours byte of 0xFF marks it invalid.
    chunk.appendByte(0xFF);
    chunk.appendPadOfLength(7);
    chunk.appendInt(0);
}

} // namespace

// ---------------------------------------------------------------- class side

KROAudioFileCAFContent::KROAudioFileCAFContent() {
    setEncoding(fourCC("lpcm"));
    setAudioDataByteOrder(KROAudioFileChunk::bigEndian);
}

std::string KROAudioFileCAFContent::format() const {
    return "CAF File";
}

std::string KROAudioFileCAFContent::extension() const {
    return "caf";
}

bool KROAudioFileCAFContent::supportsURL(const std::filesystem::path& url) const {
    return fileStartsWith(url, "caff");
}

KROErrorPtr KROAudioFileCAFContent::errorWithCode(std::int64_t code,
                                                  const std::string& action) const {
    return KROAudioFileCAFContentError::errorWithCode(code, action);
}

AudioFormatFlags KROAudioFileCAFContent::audioDataFormatFlags() const {
    AudioFormatFlags flags = KROAudioFileContent::audioDataFormatFlags();
    if (!isFloatingPoint() && encoding() == fourCC("lpcm")) {
        flags |= kAudioFormatFlagIsSignedInteger;
    }
    return flags;
}

std::uint64_t KROAudioFileCAFContent::maximumAudioDataLength() const {
    return static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
}

// ---------------------------------------------------------------- reading

bool KROAudioFileCAFContent::parse(KROErrorPtr* error) {
    if (!openFileReader(error)) {
        return false;
    }
    KROCAFChunkList chunks;
    chunks.initWithFileReader(*fileReader_);
    const auto description = chunks.chunkOfType(fourCC("desc"));
    if (!description) {
        return failWithFileName(error, noFormatChunk, "KROAudioFileContent_action_parsing");
    }
    if (!readDescription(*description, error)) {
        return false;
    }
    const auto data = chunks.chunkOfType(fourCC("data"));
    if (!data) {
        return failWithFileName(error, noAudioChunk, "KROAudioFileContent_action_parsing");
    }
    audioDataPosition_ = data->dataLocation() + editCountSize;
    // Never past the end of the file, whatever the size says.
    const std::uint64_t held =
        fileSize() > audioDataPosition_ ? fileSize() - audioDataPosition_ : 0;
    audioDataLength_ =
        std::min(held, data->dataLength() - std::min(data->dataLength(), editCountSize));
    setFrames(audioDataLength_ / audioDataLengthOfFrames(1));

    constexpr std::uint64_t loadedChunkLimit = std::uint64_t{1} << 20;
    for (const auto& chunk : chunks.list()) {
        if (chunk->type() != fourCC("data") && chunk->dataLength() <= loadedChunkLimit) {
            chunk->loadFromFile();
        }
    }
    // Only chunks held in memory are read: a chunk that claims more than
    // the limit would have the readers walk billions of records that are
    // not there, one read of the file each.
    const auto loaded = [&chunks](std::uint32_t code) -> std::shared_ptr<KROAudioFileChunk> {
        const auto chunk = chunks.chunkOfType(code);
        return chunk && chunk->data() ? chunk : nullptr;
    };
    const auto strings = loaded(fourCC("strg"));
    if (const auto chunk = loaded(fourCC("mark"))) {
        readMarkers(*chunk, strings.get());
    }
    if (const auto chunk = loaded(fourCC("regn"))) {
        readRegions(*chunk, strings.get());
    }
    if (const auto chunk = loaded(fourCC("info"))) {
        readInfo(*chunk);
    }
    return true;
}

bool KROAudioFileCAFContent::readDescription(const KROAudioFileChunk& chunk, KROErrorPtr* error) {
    const double rate = chunk.doubleValueAtPosition(0);
    const std::uint32_t format = chunk.fourCharCodeAtPosition(8);
    const auto flags = static_cast<std::uint32_t>(chunk.intValueAtPosition(12));
    const auto bytesPerPacket = static_cast<std::uint32_t>(chunk.intValueAtPosition(16));
    const auto framesPerPacket = static_cast<std::uint32_t>(chunk.intValueAtPosition(20));
    const auto channels = static_cast<std::uint32_t>(chunk.intValueAtPosition(24));
    const auto bits = static_cast<std::uint32_t>(chunk.intValueAtPosition(28));
    const bool isFloat = format == fourCC("lpcm") && (flags & floatFlag) != 0;
    const bool companded = format == fourCC("ulaw") || format == fourCC("alaw");
    const bool supported = (format == fourCC("lpcm") &&
                            (isFloat ? bits == 32 || bits == 64 : bits >= 1 && bits <= 32)) ||
                           (companded && bits == 8);
    if (!supported) {
        return failWithFileName(error, sampleFormatNotSupported,
                                "KROAudioFileContent_action_parsing");
    }
    // Samples narrower than their bytes sit in whole bytes; the depth is that
    // of the bytes, as the packet size says.
    const std::uint64_t depth = (bits + 7) / 8 * 8;
    if (!(rate > 0 && rate <= 1e7) || channels == 0 || framesPerPacket != 1 ||
        bytesPerPacket != channels * depth / 8) {
        return failWithFileName(error, impossibleFormat, "KROAudioFileContent_action_parsing");
    }
    setEncoding(format);
    setSampleRate(rate);
    setNumberOfChannels(channels);
    setBitDepth(depth);
    setIsFloatingPoint(isFloat);
    setAudioDataByteOrder((flags & littleEndianFlag) != 0 && !companded
                              ? KROAudioFileChunk::littleEndian
                              : KROAudioFileChunk::bigEndian);
    setBitrate(static_cast<std::uint64_t>(rate) * channels * depth);
    return true;
}

bool KROAudioFileCAFContent::getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                                      KROErrorPtr* error) {
    return getLinearAudio(buffer, frame, error);
}

void KROAudioFileCAFContent::readMarkers(const KROAudioFileChunk& chunk,
                                         const KROAudioFileChunk* strings) {
    const auto count = static_cast<std::uint32_t>(chunk.intValueAtPosition(4));
    for (std::uint64_t index = 0;
         index < count && 8 + (index + 1) * markerSize <= chunk.dataLength(); ++index) {
        const std::uint64_t marker = 8 + index * markerSize;
        const auto position = framePosition(chunk, marker);
        if (!position) {
            continue;
        }
        auto label = KROAudioLabel::labelOfType("marker");
        label->setLocation(*position / sampleRate());
        nameLabel(*label, strings,
                  static_cast<std::uint32_t>(chunk.intValueAtPosition(marker + 12)));
        labels().push_back(std::move(label));
    }
}

void KROAudioFileCAFContent::readRegions(const KROAudioFileChunk& chunk,
                                         const KROAudioFileChunk* strings) {
    const auto count = static_cast<std::uint32_t>(chunk.intValueAtPosition(4));
    std::uint64_t region = 8;
    for (std::uint32_t index = 0; index < count && region + 12 <= chunk.dataLength(); ++index) {
        const auto identifier = static_cast<std::uint32_t>(chunk.intValueAtPosition(region));
        const auto markers = static_cast<std::uint32_t>(chunk.intValueAtPosition(region + 8));
        const std::uint64_t first = region + 12;
        if (markers > (chunk.dataLength() - first) / markerSize) {
            return;
        }
        std::optional<double> start;
        std::optional<double> end;
        for (std::uint64_t marker = first; marker < first + markers * markerSize;
             marker += markerSize) {
            const auto type = static_cast<std::uint32_t>(chunk.intValueAtPosition(marker));
            if (type == regionStart) {
                start = framePosition(chunk, marker);
            } else if (type == regionEnd) {
                end = framePosition(chunk, marker);
            }
        }
        region = first + markers * markerSize;
        if (!start || !end || *end < *start) {
            continue;
        }
        auto label = KROAudioLabel::labelOfType("region");
        label->setLocation(*start / sampleRate());
        label->setLength((*end - *start) / sampleRate());
        nameLabel(*label, strings, identifier);
        labels().push_back(std::move(label));
    }
}

void KROAudioFileCAFContent::readInfo(const KROAudioFileChunk& chunk) {
    const auto count = static_cast<std::uint32_t>(chunk.intValueAtPosition(0));
    const std::optional<KROData> bytes = chunk.dataAtPosition(
        4, chunk.dataLength() - std::min<std::uint64_t>(chunk.dataLength(), 4));
    if (!bytes) {
        return;
    }
    // Key and value strings, each ending in a zero byte.
    KROAudioTextTags::Pairs pairs;
    std::size_t position = 0;
    const auto nextString = [&]() -> std::optional<std::string> {
        const auto begin = bytes->begin() + static_cast<std::ptrdiff_t>(position);
        const auto zero = std::find(begin, bytes->end(), std::uint8_t{0});
        if (zero == bytes->end()) {
            return std::nullopt;
        }
        position += static_cast<std::size_t>(zero - begin) + 1;
        return std::string(begin, zero);
    };
    for (std::uint32_t index = 0; index < count; ++index) {
        auto key = nextString();
        auto value = key ? nextString() : std::nullopt;
        if (!value) {
            break;
        }
        pairs.emplace_back(std::move(*key), std::move(*value));
    }
    KROAudioTextTags::read("coreaudio", pairs, metadata());
}

// ---------------------------------------------------------------- writing

bool KROAudioFileCAFContent::beginWrite(KROErrorPtr* error) {
    if (encoding() == fourCC("ulaw") || encoding() == fourCC("alaw")) {
        setBitDepth(8);
        setIsFloatingPoint(false);
        setAudioDataByteOrder(KROAudioFileChunk::bigEndian);
    } else {
        setEncoding(fourCC("lpcm"));
        if (isFloatingPoint()) {
            setBitDepth(bitDepth() == 64 ? 64 : 32);
        } else {
            setBitDepth(std::clamp<std::uint64_t>((bitDepth() + 7) / 8 * 8, 8, 32));
        }
    }
    if (audioDataByteOrder() != KROAudioFileChunk::littleEndian) {
        setAudioDataByteOrder(KROAudioFileChunk::bigEndian);
    }
    if (!beginLinearWrite(error)) {
        return false;
    }
    KROAudioFileChunk chunk;
    chunk.setFile(fileWriter_.get());
    chunk.setByteOrder(KROAudioFileChunk::bigEndian);
    chunk.setUsesLongLongSizes(true);
    // The file header has no chunk header: code, version 1, flags 0.
    chunk.appendFourCharCode(fourCC("caff"));
    chunk.appendShort(1);
    chunk.appendShort(0);
    if (!chunk.appendToFile(error) || !writeDescription(chunk, error) || !writeInfo(chunk, error) ||
        !writeLabels(chunk, error)) {
        return false;
    }
    chunk.reset();
    chunk.setType(fourCC("data"));
    chunk.appendInt(0);
    if (!chunk.appendToFile(error) || !fileWriter_->getPosition(audioDataPosition_, error)) {
        return false;
    }
    dataChunkSizePosition_ = audioDataPosition_ - editCountSize - 8;
    return true;
}

bool KROAudioFileCAFContent::writeDescription(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    std::uint32_t flags = 0;
    if (encoding() == fourCC("lpcm")) {
        flags = (isFloatingPoint() ? floatFlag : 0) |
                (audioDataByteOrder() == KROAudioFileChunk::littleEndian ? littleEndianFlag : 0);
    }
    chunk.reset();
    chunk.setType(fourCC("desc"));
    chunk.appendDouble(sampleRate());
    chunk.appendFourCharCode(encoding());
    chunk.appendInt(static_cast<std::int32_t>(flags));
    chunk.appendInt(static_cast<std::int32_t>(audioDataLengthOfFrames(1)));
    chunk.appendInt(1);
    chunk.appendInt(static_cast<std::int32_t>(numberOfChannels()));
    chunk.appendInt(static_cast<std::int32_t>(bitDepth()));
    return chunk.appendToFile(error);
}

bool KROAudioFileCAFContent::writeInfo(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    const KROAudioTextTags::Pairs pairs = KROAudioTextTags::take("coreaudio", metadata());
    if (pairs.empty()) {
        return true;
    }
    chunk.reset();
    chunk.setType(fourCC("info"));
    chunk.appendInt(static_cast<std::int32_t>(pairs.size()));
    for (const auto& [key, value] : pairs) {
        chunk.appendBytes(key.data(), key.size());
        chunk.appendByte(0);
        chunk.appendBytes(value.data(), value.size());
        chunk.appendByte(0);
    }
    return chunk.appendToFile(error);
}

bool KROAudioFileCAFContent::writeLabels(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    std::vector<const KROAudioLabel*> markers;
    std::vector<const KROAudioLabel*> regions;
    for (const auto& label : labels()) {
        if (label->type() == "marker") {
            markers.push_back(label.get());
        } else if (label->type() == "region") {
            regions.push_back(label.get());
        }
    }
    const auto frameOf = [this](double seconds) {
        return std::max(0.0, std::round(seconds * sampleRate()));
    };
    // Identifiers from 1, markers first; the strings chunk names them.
    std::vector<std::pair<std::uint32_t, std::string>> names;
    const auto nameOf = [&names](const KROAudioLabel& label, std::uint32_t identifier) {
        if (const KROPropertyList* name = label.valueForUndefinedKey("name")) {
            names.emplace_back(identifier,
                               name->stringValue() ? *name->stringValue() : name->description());
        }
    };
    std::uint32_t identifier = 0;
    if (!markers.empty()) {
        chunk.reset();
        chunk.setType(fourCC("mark"));
        chunk.appendInt(0);
        chunk.appendInt(static_cast<std::int32_t>(markers.size()));
        for (const KROAudioLabel* marker : markers) {
            appendMarker(chunk, 0, frameOf(marker->start()), ++identifier);
            nameOf(*marker, identifier);
        }
        if (!chunk.appendToFile(error)) {
            return false;
        }
    }
    if (!regions.empty()) {
        chunk.reset();
        chunk.setType(fourCC("regn"));
        chunk.appendInt(0);
        chunk.appendInt(static_cast<std::int32_t>(regions.size()));
        for (const KROAudioLabel* region : regions) {
            chunk.appendInt(static_cast<std::int32_t>(++identifier));
            chunk.appendInt(0);
            chunk.appendInt(2);
            appendMarker(chunk, regionStart, frameOf(region->start()), 0);
            appendMarker(chunk, regionEnd, frameOf(region->end()), 0);
            nameOf(*region, identifier);
        }
        if (!chunk.appendToFile(error)) {
            return false;
        }
    }
    if (names.empty()) {
        return true;
    }
    chunk.reset();
    chunk.setType(fourCC("strg"));
    chunk.appendInt(static_cast<std::int32_t>(names.size()));
    std::int64_t offset = 0;
    for (const auto& [owner, name] : names) {
        chunk.appendInt(static_cast<std::int32_t>(owner));
        chunk.appendLongLong(offset);
        offset += static_cast<std::int64_t>(name.size()) + 1;
    }
    for (const auto& [owner, name] : names) {
        chunk.appendBytes(name.data(), name.size());
        chunk.appendByte(0);
    }
    return chunk.appendToFile(error);
}

bool KROAudioFileCAFContent::writeAudio(const KROAudioBufferList& buffer, KROErrorPtr* error) {
    return writeLinearAudio(buffer, error);
}

bool KROAudioFileCAFContent::endWrite(KROErrorPtr* error) {
    if (!fileWriter_) {
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_writing");
    }
    const std::uint64_t bytes = audioDataLengthOfFrames(frames()) + editCountSize;
    const bool done =
        fileWriter_->flush(error) && fileWriter_->setPosition(dataChunkSizePosition_, error) &&
        fileWriter_->writeLongLongValue(static_cast<std::int64_t>(htobe64(bytes)), error) &&
        fileWriter_->flush(error);
    closeFileWriter();
    return done;
}
