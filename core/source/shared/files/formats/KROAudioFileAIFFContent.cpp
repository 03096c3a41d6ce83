#include "KROAudioFileAIFFContent.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <ctime>
#include <utility>
#include <vector>

#include "KROAIFFChunkList.h"
#include "KROAudioFileChunk.h"
#include "KROAudioFileFieldValues.h"
#include "KROAudioMetadataTable.h"
#include "KROClassRegistry.h"
#include "KRODateText.h"
#include "KROError.h"
#include "KROStringHelpers.h"

KRO_REGISTER_CLASS(KROAudioFileAIFFContent, KROAudioFileContent)

namespace {

using kro::clamped;
using kro::fourCC;
using kro::musicalKeys;
using kro::saturated;

constexpr std::array<const char*, 6> loopFileKeys = {
    "beats", "musicalKey", "musicalScale", "meterNumerator", "meterDenominator", "playbackType"};
constexpr std::array<const char*, 3> categoryKeys = {"instrument", "genre", "descriptors"};
constexpr std::array<const char*, 2> collectionKeys = {"collection", "theme"};
// The instrument keys in the byte order of 'INST'; gain follows as 16 bits.
constexpr std::array<const char*, 6> instrumentByteKeys = {
    "baseNote", "detune", "lowNote", "highNote", "lowVelocity", "highVelocity"};
constexpr std::array<const char*, 5> musicalScales = {nullptr, "minor", "major", "neither", "both"};

struct TextChunk {
    std::uint32_t code;
    const char* key;
};
constexpr std::array<TextChunk, 4> textChunks = {{
    {fourCC("NAME"), "name"},
    {fourCC("(c) "), "copyright"},
    {fourCC("AUTH"), "author"},
    {fourCC("ANNO"), "annotation"},
}};

// Chunks of metadata up to this size are read into memory at once.
constexpr std::uint64_t loadedChunkLimit = std::uint64_t{1} << 20;
// Loop play modes of 'INST'.
constexpr std::int16_t forwardLoop = 1;
constexpr std::int16_t forwardBackwardLoop = 2;

const std::string* stringOf(const KROPropertyList* value) {
    return value ? value->stringValue() : nullptr;
}

bool hasText(const KROAudioLabel& label, std::string_view key, std::string_view text) {
    const std::string* value = stringOf(label.valueForUndefinedKey(key));
    return value && *value == text;
}

std::vector<const KROAudioLabel*> labelsOfType(const KROAudioFileContent::Labels& labels,
                                               std::string_view type) {
    std::vector<const KROAudioLabel*> found;
    for (const auto& label : labels) {
        if (label->type() == type) {
            found.push_back(label.get());
        }
    }
    return found;
}

// The one label whose "id" is the identifier, or null when none or several have it.
std::shared_ptr<KROAudioLabel> labelWithID(const KROAudioFileContent::Labels& labels,
                                           std::int64_t identifier) {
    std::shared_ptr<KROAudioLabel> found;
    for (const auto& label : labels) {
        const KROPropertyList* value = label->valueForUndefinedKey("id");
        if (value && value->isInteger() && value->longValue() == identifier) {
            if (found) {
                return nullptr;
            }
            found = label;
        }
    }
    return found;
}

std::int16_t loopMode(const KROAudioLabel* loop) {
    if (!loop) {
        return 0;
    }
    return hasText(*loop, "loopType", "forwardBackward") ? forwardBackwardLoop : forwardLoop;
}

} // namespace

// ---------------------------------------------------------------- class side

KROAudioFileAIFFContent::KROAudioFileAIFFContent() {
    setEncoding(fourCC("lpcm"));
    setAudioDataByteOrder(KROAudioFileChunk::bigEndian);
}

std::string KROAudioFileAIFFContent::format() const {
    return "AIFF File";
}

std::string KROAudioFileAIFFContent::extension() const {
    return "aif";
}

bool KROAudioFileAIFFContent::supportsURL(const std::filesystem::path& url) const {
    return fileStartsWith(url, "FORM");
}

KROErrorPtr KROAudioFileAIFFContent::errorWithCode(std::int64_t code,
                                                   const std::string& action) const {
    return KROAudioFileAIFFContentError::errorWithCode(code, action);
}

AudioFormatFlags KROAudioFileAIFFContent::audioDataFormatFlags() const {
    return signedAudioDataFormatFlags();
}

// ---------------------------------------------------------------- reading

bool KROAudioFileAIFFContent::parse(KROErrorPtr* error) {
    if (!openFileReader(error)) {
        return false;
    }
    KROAIFFChunkList chunks;
    chunks.initWithFileReader(*fileReader_);
    const auto common = chunks.chunkOfType(fourCC("COMM"));
    if (!common) {
        return failWithFileName(error, noFormatChunk, "KROAudioFileContent_action_parsing");
    }
    if (!readCommonChunk(*common, error)) {
        return false;
    }
    const auto sound = chunks.chunkOfType(fourCC("SSND"));
    if (!sound) {
        return failWithFileName(error, noAudioChunk, "KROAudioFileContent_action_parsing");
    }
    // The offset field is not honoured: samples follow the 8-byte header.
    audioDataPosition_ = sound->dataLocation() + 8;
    audioDataLength_ = sound->dataLength() > 8 ? sound->dataLength() - 8 : 0;
    setFrames(audioDataLength_ / audioDataLengthOfFrames(1));

    for (const auto& chunk : chunks.list()) {
        if (chunk->type() != fourCC("SSND") && chunk->dataLength() <= loadedChunkLimit) {
            chunk->loadFromFile();
        }
    }
    // Only chunks the file holds in full are read: a size that runs past the
    // end would have the readers walk counts of records that are not there.
    const auto loaded = [&chunks](std::uint32_t code) -> std::shared_ptr<KROAudioFileChunk> {
        const auto chunk = chunks.chunkOfType(code);
        return chunk && chunk->data() ? chunk : nullptr;
    };
    // A later chunk overrides the keys of an earlier one.
    if (const auto chunk = loaded(fourCC("MARK"))) {
        readMarkerChunk(*chunk);
    }
    if (const auto chunk = loaded(fourCC("APPL"))) {
        readRegionApplicationChunk(*chunk);
    }
    if (const auto chunk = loaded(fourCC("regn"))) {
        readRegionChunk(*chunk, 65535);
    }
    if (const auto chunk = loaded(fourCC("INST"))) {
        readInstrumentChunk(*chunk);
    }
    if (const auto chunk = loaded(fourCC("basc"))) {
        readBasicsChunk(*chunk);
    }
    if (const auto chunk = loaded(fourCC("trns"))) {
        readTransientChunk(*chunk);
    }
    if (const auto chunk = loaded(fourCC("cate"))) {
        readCategoryChunk(*chunk);
    }
    if (const auto chunk = loaded(fourCC("coll"))) {
        readCollectionChunk(*chunk);
    }
    if (const auto table = KROAudioMetadataTable::load()) {
        for (const KROAudioMetadataTable::Entry& entry : table->entries()) {
            const std::string* code = entry.nameForFormat("aiff");
            if (code && !code->empty() && fourCC(*code) != fourCC("COMT")) {
                parseMetadataChunk(fourCC(*code), entry.key, chunks);
            }
        }
    }
    if (const auto chunk = loaded(fourCC("COMT"))) {
        readCommentChunk(*chunk);
    }
    if (const auto chunk = loaded(fourCC("iXML"))) {
        parseIXMLChunk(*chunk);
    }
    if (const auto chunk = loaded(fourCC("ID3 "))) {
        parseID3TagInFile(*fileReader_, chunk->dataLocation());
    }
    // iXML leaves its broadcast dates as text.
    for (const auto& [key, pattern] :
         {std::pair{"originationDate", "yyyy-MM-dd"}, std::pair{"originationTime", "HH:mm:ss"}}) {
        const std::string* text = stringOf(metadata().objectForKey(key));
        if (const auto date = text ? kro::dateFromString(*text, pattern) : std::nullopt) {
            metadata().setObjectForKey(key, *date);
        }
    }
    return true;
}

bool KROAudioFileAIFFContent::readCommonChunk(const KROAudioFileChunk& chunk, KROErrorPtr* error) {
    setAudioDataByteOrder(KROAudioFileChunk::bigEndian);
    setEncoding(fourCC("lpcm"));
    setIsFloatingPoint(false);
    setNumberOfChannels(static_cast<std::uint16_t>(chunk.shortValueAtPosition(0)));
    setBitDepth(static_cast<std::uint16_t>(chunk.shortValueAtPosition(6)));
    setSampleRate(chunk.float80ValueAtPosition(8));
    setBitrate(numberOfChannels() * bitDepth() * saturated<std::uint32_t>(sampleRate()));
    if (chunk.dataLength() > 18) {
        switch (chunk.fourCharCodeAtPosition(18)) {
        case fourCC("NONE"):
        case fourCC("IN24"):
        case fourCC("in24"):
        case fourCC("IN32"):
        case fourCC("in32"):
            break;
        case fourCC("sowt"):
            setAudioDataByteOrder(KROAudioFileChunk::littleEndian);
            break;
        case fourCC("twos"):
            setAudioDataByteOrder(KROAudioFileChunk::bigEndian);
            break;
        case fourCC("FL32"):
        case fourCC("fl32"):
            setIsFloatingPoint(true);
            setBitDepth(32);
            break;
        case fourCC("FL64"):
        case fourCC("fl64"):
            // Kept: 64-bit floats are labelled mu-law, and the converter
            // refuses them.
            setIsFloatingPoint(true);
            setBitDepth(64);
            setEncoding(fourCC("ulaw"));
            break;
        case fourCC("ULAW"):
        case fourCC("ulaw"):
            setEncoding(fourCC("ulaw"));
            break;
        case fourCC("ALAW"):
        case fourCC("alaw"):
            setEncoding(fourCC("alaw"));
            break;
        default:
            return failWithFileName(error, sampleFormatNotSupported,
                                    "KROAudioFileContent_action_parsing");
        }
    }
    // Samples narrower than a byte make frames of no bytes, which have no length.
    if (numberOfChannels() == 0 || bitDepth() < 8 || !(sampleRate() > 0.0) ||
        !std::isfinite(sampleRate())) {
        return failWithFileName(error, impossibleFormat, "KROAudioFileContent_action_parsing");
    }
    return true;
}

bool KROAudioFileAIFFContent::getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                                       KROErrorPtr* error) {
    return getLinearAudio(buffer, frame, error);
}

void KROAudioFileAIFFContent::readMarkerChunk(const KROAudioFileChunk& chunk) {
    const auto count = static_cast<std::uint16_t>(chunk.shortValueAtPosition(0));
    std::uint64_t offset = 2;
    for (std::uint16_t index = 0; index < count && offset + 7 <= chunk.dataLength(); ++index) {
        const auto position = static_cast<std::uint32_t>(chunk.intValueAtPosition(offset + 2));
        const auto nameLength = static_cast<std::uint8_t>(chunk.charValueAtPosition(offset + 6));
        auto label = KROAudioLabel::labelOfType("marker");
        label->setLocation(position / sampleRate());
        label->setValueForUndefinedKey(KROPropertyList(chunk.shortValueAtPosition(offset)), "id");
        if (auto name = chunk.pascalStringAtPosition(offset + 6)) {
            label->setValueForUndefinedKey(KROPropertyList(std::move(*name)), "name");
        }
        labels().push_back(std::move(label));
        // The name and its count byte are padded to an even length.
        offset += 7 + nameLength + (nameLength % 2 == 0 ? 1 : 0);
    }
}

void KROAudioFileAIFFContent::readRegionApplicationChunk(const KROAudioFileChunk& chunk) {
    if (chunk.fourCharCodeAtPosition(0) != fourCC("auFM")) {
        return;
    }
    const auto count = static_cast<std::uint16_t>(chunk.shortValueAtPosition(4));
    // Each region needs two markers.
    if (count == 0 || count > labels().size() / 2) {
        return;
    }
    std::uint64_t offset = 6;
    for (std::uint16_t index = 0; index < count && offset + 15 <= chunk.dataLength(); ++index) {
        const auto nameLength = static_cast<std::uint8_t>(chunk.charValueAtPosition(offset + 2));
        const auto start =
            labelWithID(labels(), chunk.shortValueAtPosition(offset + 3 + nameLength));
        const auto end = labelWithID(labels(), chunk.shortValueAtPosition(offset + 5 + nameLength));
        if (start && end) {
            auto region = KROAudioLabel::labelOfType("region");
            region->setLocation(start->location());
            region->setLength(end->location() - start->location());
            if (auto name = chunk.pascalStringAtPosition(offset + 2)) {
                region->setValueForUndefinedKey(KROPropertyList(std::move(*name)), "name");
            }
            labels().push_back(std::move(region));
            std::erase(labels(), start);
            std::erase(labels(), end);
        }
        offset += 15 + nameLength;
    }
}

void KROAudioFileAIFFContent::readInstrumentChunk(const KROAudioFileChunk& chunk) {
    for (std::size_t index = 0; index < instrumentByteKeys.size(); ++index) {
        const std::int64_t value = chunk.charValueAtPosition(index);
        const bool isDetune = index == 1;
        metadata().setObjectForKey(instrumentByteKeys[index],
                                   isDetune ? clamped<std::int64_t>(value, -50, 50)
                                            : clamped<std::int64_t>(value, 0, 127));
    }
    metadata().setObjectForKey("gain", static_cast<std::int64_t>(chunk.shortValueAtPosition(6)));
    struct Loop {
        std::uint64_t offset;
        const char* phase;
    };
    for (const Loop loop : {Loop{8, "sustain"}, Loop{14, "release"}}) {
        const std::int16_t mode = chunk.shortValueAtPosition(loop.offset);
        if (mode == 0 || !hasLabelOfType("marker")) {
            continue;
        }
        const auto start = labelWithID(labels(), chunk.shortValueAtPosition(loop.offset + 2));
        const auto end = labelWithID(labels(), chunk.shortValueAtPosition(loop.offset + 4));
        if (!start || !end) {
            continue;
        }
        auto label = KROAudioLabel::labelOfType("loop");
        label->setLocation(start->location());
        label->setLength(end->location() - start->location());
        if (const KROPropertyList* name = start->valueForUndefinedKey("name")) {
            label->setValueForUndefinedKey(*name, "name");
        }
        if (mode == forwardLoop) {
            label->setValueForUndefinedKey(KROPropertyList("forward"), "loopType");
        } else if (mode == forwardBackwardLoop) {
            label->setValueForUndefinedKey(KROPropertyList("forwardBackward"), "loopType");
        }
        label->setValueForUndefinedKey(KROPropertyList(loop.phase), "loopPhase");
        labels().push_back(std::move(label));
        std::erase(labels(), start);
        std::erase(labels(), end);
    }
}

void KROAudioFileAIFFContent::readBasicsChunk(const KROAudioFileChunk& chunk) {
    metadata().setObjectForKey("meterNumerator",
                               static_cast<std::int64_t>(chunk.shortValueAtPosition(12)));
    metadata().setObjectForKey("meterDenominator",
                               static_cast<std::int64_t>(chunk.shortValueAtPosition(14)));
    metadata().setObjectForKey("beats", static_cast<std::int64_t>(chunk.intValueAtPosition(4)));
    const std::int16_t root = chunk.shortValueAtPosition(8);
    if (root > 0) {
        metadata().setObjectForKey("musicalKey", musicalKeys[static_cast<std::size_t>(root % 12)]);
    }
    const std::int16_t scale = chunk.shortValueAtPosition(10);
    if (scale > 0 && scale < static_cast<std::int16_t>(musicalScales.size())) {
        metadata().setObjectForKey("musicalScale", musicalScales[static_cast<std::size_t>(scale)]);
    }
    const std::int16_t playback = chunk.shortValueAtPosition(16);
    if (playback == 1 || playback == 2) {
        metadata().setObjectForKey("playbackType", playback == 1 ? "loop" : "oneShot");
    }
}

void KROAudioFileAIFFContent::readTransientChunk(const KROAudioFileChunk& chunk) {
    constexpr std::uint64_t recordSize = 24;
    const auto count = static_cast<std::uint32_t>(chunk.intValueAtPosition(72));
    for (std::uint64_t index = 0;
         index < count && 76 + (index + 1) * recordSize <= chunk.dataLength(); ++index) {
        const auto position =
            static_cast<std::uint32_t>(chunk.intValueAtPosition(80 + index * recordSize));
        auto label = KROAudioLabel::labelOfType("slice");
        label->setLocation(position / sampleRate());
        labels().push_back(std::move(label));
    }
}

void KROAudioFileAIFFContent::readCategoryChunk(const KROAudioFileChunk& chunk) {
    const auto first = chunk.cStringAtPosition(4);
    const auto second = chunk.cStringAtPosition(54);
    if (second) {
        metadata().setObjectForKey("instrument", (first ? *first : "") + ">" + *second);
    } else if (first) {
        metadata().setObjectForKey("instrument", *first);
    }
    if (auto genre = chunk.cStringAtPosition(104)) {
        metadata().setObjectForKey("genre", std::move(*genre));
    }
    const auto count = static_cast<std::uint16_t>(chunk.shortValueAtPosition(220));
    KROPropertyList::Array descriptors;
    for (std::uint64_t index = 0; index < count && 222 + index * 50 < chunk.dataLength(); ++index) {
        if (auto text = chunk.cStringAtPosition(222 + index * 50)) {
            descriptors.emplace_back(std::move(*text));
        }
    }
    metadata().setObjectForKey("descriptors", std::move(descriptors));
}

void KROAudioFileAIFFContent::readCollectionChunk(const KROAudioFileChunk& chunk) {
    if (auto collection = chunk.cStringAtPosition(4)) {
        metadata().setObjectForKey("collection", std::move(*collection));
    }
    if (auto theme = chunk.cStringAtPosition(54)) {
        metadata().setObjectForKey("theme", std::move(*theme));
    }
}

void KROAudioFileAIFFContent::parseMetadataChunk(std::uint32_t code, std::string_view key,
                                                 const KROAudioFileChunkList& chunks) {
    const auto chunk = chunks.chunkOfType(code);
    if (!chunk || chunk->dataLength() == 0) {
        return;
    }
    if (auto text = chunk->stringAtPosition(0, KROAudioFileChunk::toEnd)) {
        metadata().setObjectForKey(key, std::move(*text));
    }
}

void KROAudioFileAIFFContent::readCommentChunk(const KROAudioFileChunk& chunk) {
    const auto length = static_cast<std::uint16_t>(chunk.shortValueAtPosition(8));
    if (length == 0) {
        return;
    }
    if (auto text = chunk.stringAtPosition(10, length)) {
        metadata().setObjectForKey("comments", std::move(*text));
    }
}

// ---------------------------------------------------------------- writing

bool KROAudioFileAIFFContent::isAIFC() const {
    return audioDataByteOrder() == KROAudioFileChunk::littleEndian || isFloatingPoint();
}

bool KROAudioFileAIFFContent::beginWrite(KROErrorPtr* error) {
    setEncoding(fourCC("lpcm"));
    // Little-endian AIFC is made at 16 bits only.
    if (bitDepth() != 16) {
        setAudioDataByteOrder(KROAudioFileChunk::bigEndian);
    }
    if (!beginLinearWrite(error)) {
        return false;
    }
    KROAudioFileChunk chunk;
    chunk.setFile(fileWriter_.get());
    chunk.setByteOrder(KROAudioFileChunk::bigEndian);
    chunk.setByteCountMultiple(2);
    // The header without a chunk header of its own; endWrite patches its size.
    chunk.appendFourCharCode(fourCC("FORM"));
    chunk.appendInt(0);
    chunk.appendFourCharCode(isAIFC() ? fourCC("AIFC") : fourCC("AIFF"));
    const bool written = chunk.appendToFile(error) && writeCommonChunk(chunk, error) &&
                         writeInstrumentChunk(chunk, error) && writeMarkerChunks(chunk, error) &&
                         writeBasicsChunk(chunk, error) && writeTransientChunk(chunk, error) &&
                         writeCategoryChunks(chunk, error) && writeTextChunks(chunk, error) &&
                         writeTagChunks(chunk, error);
    if (!written) {
        return false;
    }
    chunk.reset();
    chunk.setType(fourCC("SSND"));
    chunk.appendInt(0);
    chunk.appendInt(0);
    if (!chunk.appendToFile(error) || !fileWriter_->getPosition(audioDataPosition_, error)) {
        return false;
    }
    dataChunkSizePosition_ = audioDataPosition_ - 12;
    return true;
}

bool KROAudioFileAIFFContent::writeAudio(const KROAudioBufferList& buffer, KROErrorPtr* error) {
    return writeLinearAudio(buffer, error);
}

bool KROAudioFileAIFFContent::endWrite(KROErrorPtr* error) {
    if (!fileWriter_) {
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_writing");
    }
    const std::uint64_t bytes = audioDataLengthOfFrames(frames());
    if (bytes % 2 != 0 && fileWriter_->setPositionToEnd()) {
        fileWriter_->writeBuffer("", 1);
    }
    // The writer puts integers out in host order.
    const auto bigEndian = [](std::uint64_t value) {
        const auto word = static_cast<std::uint32_t>(value);
        return static_cast<std::int32_t>(
            std::endian::native == std::endian::big ? word : __builtin_bswap32(word));
    };
    std::uint64_t end = 0;
    bool done = fileWriter_->flush(error) &&
                fileWriter_->setPosition(dataChunkSizePosition_, error) &&
                fileWriter_->writeIntValue(bigEndian(bytes + 8), error) &&
                fileWriter_->setPosition(sampleCountPosition_, error) &&
                fileWriter_->writeIntValue(bigEndian(frames()), error) &&
                fileWriter_->setPositionToEnd(error) && fileWriter_->getPosition(end, error);
    if (done && end - 8 > 0xFFFFFFFFu) {
        done = failWithFileName(error, exceedsSizeLimit, "KROAudioFileContent_action_finishing");
    }
    done = done && fileWriter_->setPosition(4, error) &&
           fileWriter_->writeIntValue(bigEndian(end - 8), error) && fileWriter_->flush(error);
    closeFileWriter();
    return done;
}

bool KROAudioFileAIFFContent::writeCommonChunk(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    chunk.reset();
    chunk.setType(fourCC("COMM"));
    chunk.appendShort(static_cast<std::int16_t>(numberOfChannels()));
    chunk.appendInt(0);
    chunk.appendShort(static_cast<std::int16_t>(bitDepth()));
    chunk.appendAsFloat80(sampleRate());
    if (isAIFC()) {
        // 64-bit floats are labelled as 32-bit ones too.
        const bool littleEndian = audioDataByteOrder() == KROAudioFileChunk::littleEndian;
        chunk.appendFourCharCode(littleEndian ? fourCC("sowt") : fourCC("fl32"));
        chunk.appendShort(0);
    }
    std::uint64_t position = 0;
    if (!chunk.appendToFile(error) || !fileWriter_->getPosition(position, error)) {
        return false;
    }
    sampleCountPosition_ = position - chunk.dataLength() + 2;
    return true;
}

bool KROAudioFileAIFFContent::writeInstrumentChunk(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    if (!hasLabelOfType("loop") && !hasAnyMetadataKey(kro::instrumentKeys)) {
        return true;
    }
    const auto number = [this](const char* key) {
        const KROPropertyList* value = metadata().objectForKey(key);
        return value ? value->doubleValue() : 0.0;
    };
    const KROAudioLabel* sustain = nullptr;
    const KROAudioLabel* release = nullptr;
    for (const KROAudioLabel* loop : labelsOfType(labels(), "loop")) {
        const bool isRelease = hasText(*loop, "loopPhase", "release");
        const KROAudioLabel*& slot = isRelease ? release : sustain;
        slot = slot ? slot : loop;
    }
    chunk.reset();
    chunk.setType(fourCC("INST"));
    for (const char* key : instrumentByteKeys) {
        chunk.appendByte(static_cast<std::uint8_t>(saturated<std::int64_t>(number(key))));
    }
    chunk.appendShort(saturated<std::int16_t>(number("gain")));
    // The marker numbers are fixed: they match 'MARK' only when the sustain
    // loop is the first loop and the release loop the second.
    chunk.appendShort(loopMode(sustain));
    chunk.appendShort(sustain ? 1 : 0);
    chunk.appendShort(sustain ? 2 : 0);
    chunk.appendShort(loopMode(release));
    chunk.appendShort(release ? 3 : 0);
    chunk.appendShort(release ? 4 : 0);
    return chunk.appendToFile(error);
}

bool KROAudioFileAIFFContent::writeMarkerChunks(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    const auto loops = labelsOfType(labels(), "loop");
    const auto regions = labelsOfType(labels(), "region");
    const auto markers = labelsOfType(labels(), "marker");
    if (loops.empty() && regions.empty() && markers.empty()) {
        return true;
    }
    chunk.reset();
    chunk.setType(fourCC("MARK"));
    chunk.appendShort(
        static_cast<std::int16_t>(markers.size() + 2 * regions.size() + 2 * loops.size()));
    std::int16_t identifier = 0;
    const auto appendMarker = [&](double seconds, const KROAudioLabel& label) {
        chunk.appendShort(++identifier);
        chunk.appendInt(static_cast<std::int32_t>(framesOfSeconds(seconds)));
        chunk.appendAsPascalString(label.valueForUndefinedKey("name"), true);
    };
    // Loops and regions each take two markers, start then end.
    for (const auto* spans : {&loops, &regions}) {
        for (const KROAudioLabel* span : *spans) {
            appendMarker(span->start(), *span);
            appendMarker(span->end(), *span);
        }
    }
    for (const KROAudioLabel* marker : markers) {
        appendMarker(marker->start(), *marker);
    }
    if (!chunk.appendToFile(error)) {
        return false;
    }
    if (regions.empty()) {
        return true;
    }
    chunk.reset();
    chunk.setType(fourCC("APPL"));
    chunk.appendFourCharCode(fourCC("auFM"));
    chunk.appendShort(static_cast<std::int16_t>(regions.size()));
    auto startMarker = static_cast<std::int16_t>(2 * loops.size() + 1);
    for (std::size_t index = 0; index < regions.size(); ++index, startMarker += 2) {
        chunk.appendShort(static_cast<std::int16_t>(index + 1));
        chunk.appendAsPascalString(regions[index]->valueForUndefinedKey("name"), false);
        chunk.appendShort(startMarker);
        chunk.appendShort(static_cast<std::int16_t>(startMarker + 1));
        chunk.appendPadOfLength(8);
    }
    return chunk.appendToFile(error);
}

bool KROAudioFileAIFFContent::writeBasicsChunk(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    if (!hasAnyMetadataKey(loopFileKeys)) {
        return true;
    }
    const auto value = [this](const char* key) { return metadata().objectForKey(key); };
    const auto number = [&](const char* key, double fallback) {
        return value(key) ? value(key)->doubleValue(fallback) : fallback;
    };
    const std::string* key = stringOf(value("musicalKey"));
    const auto keyIndex =
        key ? std::find(musicalKeys.begin(), musicalKeys.end(), *key) - musicalKeys.begin() : 0;
    const std::string* scale = stringOf(value("musicalScale"));
    const auto scaleIndex = scale ? std::find_if(musicalScales.begin() + 1, musicalScales.end(),
                                                 [&](const char* name) { return *scale == name; }) -
                                        musicalScales.begin()
                                  : 0;
    const std::string* playback = stringOf(value("playbackType"));
    chunk.reset();
    chunk.setType(fourCC("basc"));
    chunk.appendInt(1);
    chunk.appendInt(saturated<std::int32_t>(number("beats", 8)));
    chunk.appendShort(static_cast<std::int16_t>(key ? keyIndex + 48 : -1));
    chunk.appendShort(
        static_cast<std::int16_t>(scaleIndex < std::ssize(musicalScales) ? scaleIndex : 0));
    chunk.appendShort(saturated<std::int16_t>(number("meterNumerator", 4)));
    chunk.appendShort(saturated<std::int16_t>(number("meterDenominator", 4)));
    chunk.appendShort(playback && *playback == "oneShot" ? 2 : 1);
    chunk.appendPadOfLength(66);
    return chunk.appendToFile(error);
}

bool KROAudioFileAIFFContent::writeTransientChunk(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    std::vector<double> slices;
    for (const KROAudioLabel* slice : labelsOfType(labels(), "slice")) {
        slices.push_back(slice->location());
    }
    if (slices.empty()) {
        return true;
    }
    std::stable_sort(slices.begin(), slices.end());
    chunk.reset();
    chunk.setType(fourCC("trns"));
    for (const std::int16_t value : {1, 50, 16, 0}) {
        chunk.appendShort(value);
    }
    // The time stamp is little-endian in the file, as loop tools write it.
    const auto now = static_cast<std::uint32_t>(std::time(nullptr));
    chunk.appendInt(static_cast<std::int32_t>(__builtin_bswap32(now)));
    chunk.appendPadOfLength(60);
    chunk.appendInt(static_cast<std::int32_t>(slices.size()));
    for (const double slice : slices) {
        chunk.appendShort(1);
        chunk.appendShort(0);
        chunk.appendInt(static_cast<std::int32_t>(framesOfSeconds(slice)));
        chunk.appendPadOfLength(16);
    }
    return chunk.appendToFile(error);
}

bool KROAudioFileAIFFContent::writeCategoryChunks(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    const auto value = [this](const char* key) { return metadata().objectForKey(key); };
    if (hasAnyMetadataKey(categoryKeys)) {
        const std::string* instrument = stringOf(value("instrument"));
        const std::string whole = instrument ? *instrument : "";
        const std::size_t split = whole.find('>');
        chunk.reset();
        chunk.setType(fourCC("cate"));
        chunk.appendInt(1);
        chunk.appendAsCStringOfSize(whole.substr(0, split), 50);
        chunk.appendAsCStringOfSize(split == std::string::npos ? "" : whole.substr(split + 1), 50);
        chunk.appendAsCStringOfSize(value("genre"), 50);
        chunk.appendPadOfLength(66);
        const KROPropertyList* descriptors = value("descriptors");
        const KROPropertyList::Array* list = descriptors ? descriptors->arrayValue() : nullptr;
        chunk.appendShort(static_cast<std::int16_t>(list ? list->size() : 0));
        for (std::size_t index = 0; list && index < list->size(); ++index) {
            chunk.appendAsCStringOfSize(&(*list)[index], 50);
        }
        if (!chunk.appendToFile(error)) {
            return false;
        }
    }
    if (!hasAnyMetadataKey(collectionKeys)) {
        return true;
    }
    chunk.reset();
    chunk.setType(fourCC("coll"));
    chunk.appendInt(1);
    chunk.appendAsCStringOfSize(value("collection"), 50);
    chunk.appendAsCStringOfSize(value("theme"), 50);
    return chunk.appendToFile(error);
}

bool KROAudioFileAIFFContent::writeTextChunks(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    for (const TextChunk& text : textChunks) {
        const KROPropertyList* value = metadata().objectForKey(text.key);
        if (!value) {
            continue;
        }
        chunk.reset();
        chunk.setType(text.code);
        chunk.appendString(value);
        if (!chunk.appendToFile(error)) {
            return false;
        }
    }
    const KROPropertyList* comments = metadata().objectForKey("comments");
    if (!comments) {
        return true;
    }
    chunk.reset();
    chunk.setType(fourCC("COMT"));
    chunk.appendShort(1);
    chunk.appendInt(0);
    chunk.appendShort(0);
    chunk.appendShort(0);
    chunk.appendString(comments);
    // The length counts the bytes that appendString gave.
    const auto length = static_cast<std::uint16_t>(chunk.dataLength() - 10);
    const std::array<std::uint8_t, 2> lengthBytes = {static_cast<std::uint8_t>(length >> 8),
                                                     static_cast<std::uint8_t>(length)};
    chunk.replaceBytesInRange(8, 2, lengthBytes.data());
    return chunk.appendToFile(error);
}

bool KROAudioFileAIFFContent::writeTagChunks(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    if (hasID3Metadata()) {
        chunk.reset();
        chunk.setType(fourCC("ID3 "));
        appendID3ToChunk(chunk);
        if (!chunk.appendToFile(error)) {
            return false;
        }
    }
    if (!hasIXMLMetadata()) {
        return true;
    }
    chunk.reset();
    chunk.setType(fourCC("iXML"));
    appendIXMLToChunk(chunk);
    return chunk.appendToFile(error);
}
