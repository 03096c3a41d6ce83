#include "KROAudioFileWAVEContent.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <ctime>
#include <limits>
#include <optional>
#include <utility>

#include "KROAudioFileChunk.h"
#include "KROAudioFileFieldValues.h"
#include "KROClassRegistry.h"
#include "KROError.h"
#include "KROStringHelpers.h"
#include "KROWAVEChunkList.h"
#include "KROXMLParser.h"

KRO_REGISTER_CLASS(KROAudioFileWAVEContent, KROAudioFileContent)

namespace {

using kro::clamped;
using kro::fourCC;
using kro::infoEntries;
using kro::InfoEntry;
using kro::instrumentKeys;
using kro::musicalKeys;
using kro::saturated;

// ---------------------------------------------------------------- tables

constexpr std::array<const char*, 8> broadcastKeys = {
    "description",     "originator",    "originatorReference", "originationDate",
    "originationTime", "timeReference", "smpteUMID",           "codingHistory"};
constexpr std::array<const char*, 6> acidKeys = {"playbackType",   "musicalKey",       "beats",
                                                 "meterNumerator", "meterDenominator", "tempo"};

struct CartText {
    const char* key;
    std::uint64_t offset;
    std::uint64_t size;
    // The date format of the field, or null for text.
    const char* dateFormat;
};
constexpr std::array<CartText, 14> cartTexts = {{
    {"title", 4, 64, nullptr},
    {"artist", 68, 64, nullptr},
    {"cut", 132, 64, nullptr},
    {"client", 196, 64, nullptr},
    {"category", 260, 64, nullptr},
    {"classification", 324, 64, nullptr},
    {"outCue", 388, 64, nullptr},
    {"startDate", 452, 10, "%Y-%m-%d"},
    {"startTime", 462, 8, "%H:%M:%S"},
    {"endDate", 470, 10, "%Y-%m-%d"},
    {"endTime", 480, 8, "%H:%M:%S"},
    {"user", 616, 64, nullptr},
    {"url", 1024, 1024, nullptr},
    {"tags", 2048, KROAudioFileChunk::toEnd, nullptr},
}};

constexpr const char* dateFormat = "%Y-%m-%d";
constexpr const char* timeFormat = "%H:%M:%S";
// The form of a date's description, which INFO creation dates are written in.
constexpr const char* dateTimeZoneFormat = "%Y-%m-%d %H:%M:%S %z";

// Chunks of metadata up to this size are read into memory at once rather
// than value by value from the file.
constexpr std::uint64_t loadedChunkLimit = std::uint64_t{1} << 20;

// ---------------------------------------------------------------- dates
//
// Dates are read and written in UTC, so that a file reads the same in any
// time zone. A time of day alone falls on 2000-01-01, as the platform's date
// formatter places it.

std::optional<KRODate> dateFromString(const std::string& text, const char* format) {
    std::tm parts{};
    parts.tm_year = 100;
    parts.tm_mday = 1;
    const char* end = ::strptime(text.c_str(), format, &parts);
    if (!end || *end != '\0') {
        return std::nullopt;
    }
    const long offset = parts.tm_gmtoff;
    const std::time_t seconds = ::timegm(&parts) - offset;
    // Years far from ours do not fit the clock's count of nanoseconds.
    constexpr auto limit =
        std::chrono::duration_cast<std::chrono::seconds>(KRODate::duration::max()).count() - 86400;
    if (seconds < -limit || seconds > limit) {
        return std::nullopt;
    }
    return std::chrono::system_clock::from_time_t(seconds);
}

std::string stringFromDate(const KRODate& date, const char* format) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(date);
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    char text[64];
    const std::size_t length = std::strftime(text, sizeof text, format, &parts);
    return std::string(text, length);
}

// A date value in the format; any other value as it is.
KROPropertyList dateText(const KROPropertyList& value, const char* format) {
    if (const KRODate* date = value.dateValue()) {
        return KROPropertyList(stringFromDate(*date, format));
    }
    return value;
}

// A value as its text: a string as it is, anything else as its description.
std::string textOf(const KROPropertyList& value) {
    if (const std::string* text = value.stringValue()) {
        return *text;
    }
    return value.description();
}

// The subchunks of a LIST chunk, from offset 4: code, size, contents.
// An odd step (size + 8 + offset) takes the pad byte with it.
template <typename Visit> void forEachSubchunk(const KROAudioFileChunk& list, Visit visit) {
    const std::uint64_t length = list.dataLength();
    for (std::uint64_t offset = 4; offset + 8 <= length;) {
        const std::uint32_t code = list.fourCharCodeAtPosition(offset);
        const std::uint64_t size = static_cast<std::uint32_t>(list.intValueAtPosition(offset + 4));
        visit(code, offset);
        offset += 8 + size + ((size + 8 + offset) % 2);
    }
}

} // namespace

// ---------------------------------------------------------------- class side

KROAudioFileWAVEContent::KROAudioFileWAVEContent() {
    setEncoding(fourCC("lpcm"));
    setAudioDataByteOrder(KROAudioFileChunk::littleEndian);
}

std::string KROAudioFileWAVEContent::format() const {
    return "WAVE File";
}

std::string KROAudioFileWAVEContent::extension() const {
    return "wav";
}

bool KROAudioFileWAVEContent::supportsURL(const std::filesystem::path& url) const {
    return fileStartsWith(url, "RIFF");
}

KROErrorPtr KROAudioFileWAVEContent::errorWithCode(std::int64_t code,
                                                   const std::string& action) const {
    return KROAudioFileWAVEContentError::errorWithCode(code, action);
}

// ---------------------------------------------------------------- reading

bool KROAudioFileWAVEContent::parse(KROErrorPtr* error) {
    if (!openFileReader(error)) {
        return false;
    }
    KROWAVEChunkList chunks;
    chunks.initWithFileReader(*fileReader_);
    if (!readFormatAndAudioData(chunks, error)) {
        return false;
    }
    // A later chunk overrides the keys of an earlier one.
    if (const auto chunk = chunks.chunkOfType(fourCC("inst"))) {
        readInstrumentChunk(*chunk);
    }
    if (const auto chunk = chunks.chunkOfType(fourCC("regn"))) {
        readRegionChunk(*chunk, std::numeric_limits<std::uint64_t>::max());
    }
    if (const auto chunk = chunks.chunkOfType(fourCC("cue "))) {
        readCueChunk(*chunk);
        if (const auto texts = chunks.chunkOfTypeSubtype(fourCC("LIST"), fourCC("adtl"))) {
            readLabelTexts(*texts);
        }
    }
    if (const auto chunk = chunks.chunkOfType(fourCC("smpl"))) {
        readSamplerChunk(*chunk);
    }
    if (const auto chunk = chunks.chunkOfType(fourCC("acid"))) {
        readAcidChunk(*chunk);
    }
    if (const auto chunk = chunks.chunkOfType(fourCC("strc"))) {
        readSliceChunk(*chunk);
    }
    if (const auto chunk = chunks.chunkOfType(fourCC("bext"))) {
        readBroadcastChunk(*chunk);
    }
    if (const auto chunk = chunks.chunkOfType(fourCC("cart"))) {
        readCartChunk(*chunk);
    }
    if (const auto chunk = chunks.chunkOfType(fourCC("iXML"))) {
        parseIXMLChunk(*chunk);
    }
    if (const auto chunk = chunks.chunkOfType(fourCC("axml"))) {
        readEBUChunk(*chunk);
    }
    if (const auto chunk = chunks.chunkOfType(fourCC("ID3 "))) {
        parseID3TagInFile(*fileReader_, chunk->dataLocation());
    }
    if (const auto chunk = chunks.chunkOfTypeSubtype(fourCC("LIST"), fourCC("INFO"))) {
        readInfoList(*chunk);
    }
    return true;
}

bool KROAudioFileWAVEContent::readFormatAndAudioData(const KROAudioFileChunkList& chunks,
                                                     KROErrorPtr* error) {
    const auto format = chunks.chunkOfType(fourCC("fmt "));
    if (!format) {
        return failWithFileName(error, noFormatChunk, "KROAudioFileContent_action_parsing");
    }
    if (!readFormatChunk(*format, error)) {
        return false;
    }
    const auto data = chunks.chunkOfType(fourCC("data"));
    if (!data) {
        return failWithFileName(error, noAudioChunk, "KROAudioFileContent_action_parsing");
    }
    // No channels, or samples narrower than a byte, make frames of no
    // bytes: such a file has no length and is refused.
    const std::uint64_t bytesPerFrame = audioDataLengthOfFrames(1);
    if (bytesPerFrame == 0) {
        return failWithFileName(error, impossibleFormat, "KROAudioFileContent_action_parsing");
    }
    audioDataPosition_ = data->dataLocation();
    audioDataLength_ = data->dataLength();
    setFrames(audioDataLength_ / bytesPerFrame);

    for (const auto& chunk : chunks.list()) {
        if (chunk->type() != fourCC("data") && chunk->dataLength() <= loadedChunkLimit) {
            chunk->loadFromFile();
        }
    }
    return true;
}

bool KROAudioFileWAVEContent::readFormatChunk(const KROAudioFileChunk& chunk, KROErrorPtr* error) {
    setAudioDataByteOrder(KROAudioFileChunk::littleEndian);
    setEncoding(fourCC("lpcm"));
    setNumberOfChannels(static_cast<std::uint16_t>(chunk.shortValueAtPosition(2)));
    setSampleRate(chunk.intValueAtPosition(4));
    setBitDepth(static_cast<std::uint16_t>(chunk.shortValueAtPosition(14)));
    setBitrate(numberOfChannels() * bitDepth() *
               static_cast<std::uint64_t>(std::max(sampleRate(), 0.0)));
    // The extensible form (0xFFFE) reads as integer samples whatever its
    // subformat says, so an extensible float file reads as integers.
    switch (chunk.shortValueAtPosition(0)) {
    case 1:
    case -2:
        setIsFloatingPoint(false);
        return true;
    case 3:
        setIsFloatingPoint(true);
        return true;
    case 7:
        setIsFloatingPoint(false);
        setEncoding(fourCC("ulaw"));
        return true;
    default:
        return failWithFileName(error, sampleFormatNotSupported,
                                "KROAudioFileContent_action_parsing");
    }
}

bool KROAudioFileWAVEContent::getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                                       KROErrorPtr* error) {
    return getLinearAudio(buffer, frame, error);
}

void KROAudioFileWAVEContent::readInstrumentChunk(const KROAudioFileChunk& chunk) {
    const auto byte = [&](std::uint64_t position) {
        return static_cast<std::int64_t>(chunk.charValueAtPosition(position));
    };
    metadata().setObjectForKey("baseNote", clamped<std::int64_t>(byte(0), 0, 127));
    metadata().setObjectForKey("detune", clamped<std::int64_t>(byte(1), -50, 50));
    metadata().setObjectForKey("gain", byte(2));
    metadata().setObjectForKey("lowNote", clamped<std::int64_t>(byte(3), 0, 127));
    metadata().setObjectForKey("highNote", clamped<std::int64_t>(byte(4), 0, 127));
    metadata().setObjectForKey("lowVelocity", clamped<std::int64_t>(byte(5), 0, 127));
    metadata().setObjectForKey("highVelocity", clamped<std::int64_t>(byte(6), 0, 127));
}

void KROAudioFileWAVEContent::readCueChunk(const KROAudioFileChunk& chunk) {
    constexpr std::uint64_t pointSize = 24;
    if (chunk.intValueAtPosition(0) <= 0) {
        return;
    }
    // The points run to the chunk's end, whatever the count says.
    for (std::uint64_t point = 4; point + pointSize <= chunk.dataLength(); point += pointSize) {
        std::uint32_t position = static_cast<std::uint32_t>(chunk.intValueAtPosition(point + 4));
        if (position == 0) {
            position = static_cast<std::uint32_t>(chunk.intValueAtPosition(point + 20));
        }
        auto label = KROAudioLabel::labelOfType("marker");
        label->setLocation(position / sampleRate());
        label->setValueForUndefinedKey(KROPropertyList(chunk.intValueAtPosition(point)), "id");
        labels().push_back(std::move(label));
    }
}

void KROAudioFileWAVEContent::readLabelTexts(const KROAudioFileChunk& list) {
    // The one label with the identifier, or null when none or several have it.
    const auto labelWithID = [this](std::int32_t identifier) -> std::shared_ptr<KROAudioLabel> {
        std::shared_ptr<KROAudioLabel> found;
        for (const auto& label : labels()) {
            const KROPropertyList* value = label->valueForUndefinedKey("id");
            if (value && value->longValue(-1) == identifier && value->isInteger()) {
                if (found) {
                    return nullptr;
                }
                found = label;
            }
        }
        return found;
    };
    forEachSubchunk(list, [&](std::uint32_t code, std::uint64_t offset) {
        if (code != fourCC("labl")) {
            return;
        }
        const auto label = labelWithID(list.intValueAtPosition(offset + 8));
        if (auto name = list.cStringAtPosition(offset + 12); label && name) {
            label->setValueForUndefinedKey(KROPropertyList(std::move(*name)), "name");
        }
    });
    forEachSubchunk(list, [&](std::uint32_t code, std::uint64_t offset) {
        if (code != fourCC("ltxt")) {
            return;
        }
        const auto length = static_cast<std::uint32_t>(list.intValueAtPosition(offset + 12));
        const auto marker = labelWithID(list.intValueAtPosition(offset + 8));
        if (length == 0 || !marker) {
            return;
        }
        auto region = KROAudioLabel::labelOfType("region");
        region->setLocation(marker->location());
        region->setLength(length / sampleRate());
        if (const KROPropertyList* name = marker->valueForUndefinedKey("name")) {
            region->setValueForUndefinedKey(*name, "name");
        }
        std::erase(labels(), marker);
        labels().push_back(std::move(region));
    });
}

void KROAudioFileWAVEContent::readSamplerChunk(const KROAudioFileChunk& chunk) {
    constexpr std::uint64_t loopSize = 24;
    if (chunk.intValueAtPosition(28) <= 0) {
        return;
    }
    // The loops run to the chunk's end, whatever the count says.
    for (std::uint64_t loop = 36; loop + loopSize <= chunk.dataLength(); loop += loopSize) {
        const auto start = static_cast<std::uint32_t>(chunk.intValueAtPosition(loop + 8));
        const auto end = static_cast<std::uint32_t>(chunk.intValueAtPosition(loop + 12));
        auto label = KROAudioLabel::labelOfType("loop");
        label->setLocation(start / sampleRate());
        label->setLength((double(end) - double(start)) / sampleRate());
        switch (chunk.intValueAtPosition(loop + 4)) {
        case 0:
            label->setValueForUndefinedKey(KROPropertyList("forward"), "loopType");
            break;
        case 1:
            label->setValueForUndefinedKey(KROPropertyList("forwardBackward"), "loopType");
            break;
        case 2:
            label->setValueForUndefinedKey(KROPropertyList("backward"), "loopType");
            break;
        case -1:
            label->setValueForUndefinedKey(KROPropertyList("none"), "loopType");
            break;
        default:
            break;
        }
        label->setValueForUndefinedKey(KROPropertyList("sustain"), "loopPhase");
        labels().push_back(std::move(label));
    }
}

void KROAudioFileWAVEContent::readAcidChunk(const KROAudioFileChunk& chunk) {
    const std::int32_t flags = chunk.intValueAtPosition(0);
    const bool oneShot = (flags & 1) != 0;
    metadata().setObjectForKey("meterNumerator",
                               static_cast<std::uint16_t>(chunk.shortValueAtPosition(16)));
    metadata().setObjectForKey("meterDenominator",
                               static_cast<std::uint16_t>(chunk.shortValueAtPosition(18)));
    // Kept: a one-shot file loses its beats, though writers store them.
    if (!oneShot) {
        metadata().setObjectForKey("beats", chunk.intValueAtPosition(12));
    }
    if ((flags & 2) != 0) {
        const auto root = static_cast<std::uint16_t>(chunk.shortValueAtPosition(4));
        metadata().setObjectForKey("musicalKey", musicalKeys[root % 12]);
    }
    metadata().setObjectForKey("tempo", static_cast<double>(chunk.floatValueAtPosition(20)));
    metadata().setObjectForKey("playbackType", oneShot ? "oneShot" : "loop");
}

void KROAudioFileWAVEContent::readSliceChunk(const KROAudioFileChunk& chunk) {
    constexpr std::uint64_t recordSize = 32;
    const auto count = static_cast<std::uint32_t>(chunk.intValueAtPosition(4));
    for (std::uint64_t index = 0;
         index < count && 28 + (index + 1) * recordSize <= chunk.dataLength(); ++index) {
        const std::uint64_t record = 28 + index * recordSize;
        const std::int32_t type = chunk.intValueAtPosition(record);
        const auto position = static_cast<std::uint32_t>(chunk.intValueAtPosition(record + 8));
        const auto second = static_cast<std::uint32_t>(chunk.intValueAtPosition(record + 16));
        // A first-slice record that points nowhere marks no slice.
        if (position != 0 && type == 2 && second == 0) {
            continue;
        }
        auto label = KROAudioLabel::labelOfType("slice");
        label->setLocation(position / sampleRate());
        labels().push_back(std::move(label));
    }
}

void KROAudioFileWAVEContent::readBroadcastChunk(const KROAudioFileChunk& chunk) {
    KROPropertyList& values = metadata();
    const auto setText = [&](const char* key, std::optional<std::string> text) {
        if (text) {
            values.setObjectForKey(key, std::move(*text));
        }
    };
    const auto setDate = [&](const char* key, std::optional<std::string> text, const char* form) {
        if (const auto date = text ? dateFromString(*text, form) : std::nullopt) {
            values.setObjectForKey(key, *date);
        }
    };
    setText("description", chunk.cStringAtPosition(0));
    // Kept: the originator runs on past its 32 bytes when they hold no zero.
    setText("originator", chunk.cStringAtPosition(256));
    setText("originatorReference", chunk.stringAtPosition(288, 32));
    setDate("originationDate", chunk.stringAtPosition(320, 10), dateFormat);
    setDate("originationTime", chunk.stringAtPosition(330, 8), timeFormat);
    const auto timeReference = static_cast<std::uint64_t>(chunk.longLongValueAtPosition(338));
    if (timeReference != 0) {
        values.setObjectForKey("timeReference", static_cast<double>(timeReference) / sampleRate());
    }
    if (chunk.shortValueAtPosition(346) == 1) {
        if (auto umid = chunk.dataAtPosition(348, 64)) {
            values.setObjectForKey("smpteUMID", std::move(*umid));
        }
    }
    // Cut at 256 bytes, as every text read here; longer histories are rare.
    setText("codingHistory", chunk.cStringAtPosition(602));
}

void KROAudioFileWAVEContent::readCartChunk(const KROAudioFileChunk& chunk) {
    if (chunk.stringAtPosition(0, 4) != "0101") {
        return;
    }
    for (const CartText& field : cartTexts) {
        auto text = chunk.stringAtPosition(field.offset, field.size);
        if (!text) {
            continue;
        }
        if (!field.dateFormat) {
            metadata().setObjectForKey(field.key, std::move(*text));
        } else if (const auto date = dateFromString(*text, field.dateFormat)) {
            metadata().setObjectForKey(field.key, *date);
        }
    }
    // The reference level as a fraction of full scale at the file's depth, in decibels.
    const float fraction = static_cast<float>(chunk.intValueAtPosition(680)) /
                           std::pow(2.0f, static_cast<float>(bitDepth()) - 1.0f);
    metadata().setObjectForKey("levelReference", static_cast<double>(20.0f * log10f(fraction)));
}

void KROAudioFileWAVEContent::readEBUChunk(const KROAudioFileChunk& chunk) {
    auto bytes = chunk.dataAtPosition(0, chunk.dataLength());
    if (!bytes) {
        return;
    }
    bytes->erase(std::find(bytes->begin(), bytes->end(), 0), bytes->end());
    auto parser = KROXMLParser::parser();
    parser->setDictionaryElements(
        {"ebucore:ebuCoreMain", "ebucore:coreMetadata", "ebucore:identifier"});
    const auto root = parser->objectForData(*bytes);
    const KROPropertyList* node = root ? root->objectForKey("ebucore:ebuCoreMain") : nullptr;
    for (const char* name : {"ebucore:coreMetadata", "ebucore:identifier", "dc:identifier"}) {
        node = node ? node->objectForKey(name) : nullptr;
    }
    const std::string* text = node ? node->stringValue() : nullptr;
    // The text reads "ISRC:" and the code.
    if (text && text->size() > 5) {
        metadata().setObjectForKey("isrc", text->substr(5));
    }
}

void KROAudioFileWAVEContent::readInfoList(const KROAudioFileChunk& list) {
    forEachSubchunk(list, [&](std::uint32_t code, std::uint64_t offset) {
        const auto entry =
            std::find_if(infoEntries.begin(), infoEntries.end(),
                         [code](const InfoEntry& info) { return info.code == code; });
        if (entry == infoEntries.end()) {
            return;
        }
        auto text = list.cStringAtPosition(offset + 8);
        if (!text) {
            return;
        }
        if (code != fourCC("ICRD")) {
            metadata().setObjectForKey(entry->key, std::move(*text));
        } else if (const auto date = dateFromString(*text, dateTimeZoneFormat)) {
            metadata().setObjectForKey(entry->key, *date);
        }
    });
}

// ---------------------------------------------------------------- writing

void KROAudioFileWAVEContent::startChunk(KROAudioFileChunk& chunk, std::uint32_t code) const {
    chunk.reset();
    chunk.setType(code);
}

bool KROAudioFileWAVEContent::beginWrite(KROErrorPtr* error) {
    if (encoding() == fourCC("ulaw")) {
        setBitDepth(8);
        setIsFloatingPoint(false);
    } else if (isFloatingPoint()) {
        setBitDepth(32);
    }
    if (!beginLinearWrite(error)) {
        return false;
    }
    KROAudioFileChunk chunk;
    chunk.setFile(fileWriter_.get());
    chunk.setByteOrder(KROAudioFileChunk::littleEndian);
    chunk.setByteCountMultiple(2);
    // The header without a chunk header of its own; endWrite patches its size.
    chunk.appendFourCharCode(fourCC("RIFF"));
    chunk.appendInt(0);
    chunk.appendFourCharCode(fourCC("WAVE"));
    const bool written = chunk.appendToFile(error) && writeBroadcastChunk(chunk, error) &&
                         writeFormatChunk(chunk, error) && writeSamplerChunk(chunk, error) &&
                         writeInstrumentChunk(chunk, error) && writeCueChunks(chunk, error) &&
                         writeInfoList(chunk, error) && writeID3Chunk(chunk, error) &&
                         writeIXMLChunk(chunk, error) && writeEBUChunk(chunk, error);
    if (!written) {
        return false;
    }
    chunk.reset();
    chunk.setType(fourCC("data"));
    if (!chunk.appendToFile(error) || !fileWriter_->getPosition(audioDataPosition_, error)) {
        return false;
    }
    dataChunkSizePosition_ = audioDataPosition_ - 4;
    return true;
}

bool KROAudioFileWAVEContent::writeAudio(const KROAudioBufferList& buffer, KROErrorPtr* error) {
    return writeLinearAudio(buffer, error);
}

bool KROAudioFileWAVEContent::endWrite(KROErrorPtr* error) {
    if (!fileWriter_) {
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_writing");
    }
    const std::uint64_t bytes = audioDataLengthOfFrames(frames());
    if (bytes % 2 != 0 && fileWriter_->setPositionToEnd()) {
        fileWriter_->writeBuffer("", 1);
    }
    KROAudioFileChunk chunk;
    chunk.setFile(fileWriter_.get());
    chunk.setByteOrder(KROAudioFileChunk::littleEndian);
    chunk.setByteCountMultiple(2);
    std::uint64_t end = 0;
    bool done = fileWriter_->flush(error) &&
                fileWriter_->setPosition(dataChunkSizePosition_, error) &&
                fileWriter_->writeIntValue(static_cast<std::int32_t>(bytes), error) &&
                writeAcidChunk(chunk, error) && writeSliceChunk(chunk, error) &&
                fileWriter_->setPositionToEnd(error) && fileWriter_->getPosition(end, error);
    if (done && end - 8 > 0xFFFFFFFFu) {
        done = failWithFileName(error, exceedsSizeLimit, "KROAudioFileContent_action_finishing");
    }
    done = done && fileWriter_->setPosition(4, error) &&
           fileWriter_->writeIntValue(static_cast<std::int32_t>(end - 8), error) &&
           fileWriter_->flush(error);
    closeFileWriter();
    return done;
}

bool KROAudioFileWAVEContent::writeFormatChunk(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    const std::int16_t tag = encoding() == fourCC("ulaw") ? 7 : isFloatingPoint() ? 3 : 1;
    const auto rate = static_cast<std::uint32_t>(saturated<std::int64_t>(sampleRate()));
    const auto blockAlign = static_cast<std::uint32_t>((bitDepth() >> 3) * numberOfChannels());
    startChunk(chunk, fourCC("fmt "));
    chunk.appendShort(tag);
    chunk.appendShort(static_cast<std::int16_t>(numberOfChannels()));
    chunk.appendInt(static_cast<std::int32_t>(rate));
    chunk.appendInt(static_cast<std::int32_t>(blockAlign * rate));
    chunk.appendShort(static_cast<std::int16_t>(blockAlign));
    chunk.appendShort(static_cast<std::int16_t>(bitDepth()));
    return chunk.appendToFile(error);
}

bool KROAudioFileWAVEContent::writeBroadcastChunk(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    KROPropertyList& values = metadata();
    if (!hasAnyMetadataKey(broadcastKeys)) {
        return true;
    }
    const auto dateField = [&](const char* key, const char* form, std::uint64_t size) {
        const KROPropertyList* value = values.objectForKey(key);
        const std::optional<KROPropertyList> text =
            value ? std::optional(dateText(*value, form)) : std::nullopt;
        chunk.appendStringOfSize(text ? &*text : nullptr, size);
    };
    startChunk(chunk, fourCC("bext"));
    chunk.appendAsCStringOfSize(values.objectForKey("description"), 256);
    chunk.appendAsCStringOfSize(values.objectForKey("originator"), 32);
    chunk.appendAsCStringOfSize(values.objectForKey("originatorReference"), 32);
    dateField("originationDate", dateFormat, 10);
    dateField("originationTime", timeFormat, 8);
    const KROPropertyList* timeReference = values.objectForKey("timeReference");
    chunk.appendLongLong(
        timeReference ? saturated<std::int64_t>(timeReference->doubleValue() * sampleRate()) : 0);
    const KROPropertyList* umid = values.objectForKey("smpteUMID");
    KROData umidBytes(64, 0);
    if (umid && umid->dataValue()) {
        std::copy_n(umid->dataValue()->begin(),
                    std::min<std::size_t>(umid->dataValue()->size(), 64), umidBytes.begin());
    }
    chunk.appendShort(umid ? 1 : 0);
    chunk.appendData(umidBytes);
    chunk.appendPadOfLength(190);
    if (const KROPropertyList* history = values.objectForKey("codingHistory")) {
        chunk.appendAsCString(history, true);
    }
    if (!chunk.appendToFile(error)) {
        return false;
    }
    // An iXML document carries a copy of them in its BEXT block.
    if (!hasIXMLMetadata()) {
        for (const char* key : broadcastKeys) {
            values.removeObjectForKey(key);
        }
    }
    return true;
}

bool KROAudioFileWAVEContent::writeID3Chunk(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    if (!hasID3Metadata()) {
        return true;
    }
    chunk.reset();
    chunk.setType(fourCC("ID3 "));
    appendID3ToChunk(chunk);
    return chunk.appendToFile(error);
}

bool KROAudioFileWAVEContent::writeIXMLChunk(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    if (!hasIXMLMetadata()) {
        return true;
    }
    startChunk(chunk, fourCC("iXML"));
    appendIXMLToChunk(chunk);
    return chunk.appendToFile(error);
}

bool KROAudioFileWAVEContent::writeSamplerChunk(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    if (!hasLabelOfType("loop")) {
        return true;
    }
    const auto number = [this](const char* key) {
        const KROPropertyList* value = metadata().objectForKey(key);
        return value ? value->doubleValue() : 0.0;
    };
    std::vector<const KROAudioLabel*> loops;
    for (const auto& label : labels()) {
        if (label->type() == "loop") {
            loops.push_back(label.get());
        }
    }
    startChunk(chunk, fourCC("smpl"));
    chunk.appendInt(0);
    chunk.appendInt(0);
    chunk.appendInt(saturated<std::int32_t>(1000000000.0 / sampleRate()));
    chunk.appendInt(saturated<std::int32_t>(number("baseNote")));
    // The fraction of a semitone above the base note, in 32 bits.
    const float detune = static_cast<float>(number("detune")) / 50.0f * 2147483648.0f;
    chunk.appendInt(static_cast<std::int32_t>(saturated<std::int64_t>(detune)));
    chunk.appendInt(0);
    chunk.appendInt(0);
    chunk.appendInt(static_cast<std::int32_t>(loops.size()));
    chunk.appendInt(0);
    std::int32_t identifier = 0;
    for (const KROAudioLabel* loop : loops) {
        const KROPropertyList* type = loop->valueForUndefinedKey("loopType");
        const std::string* typeName = type ? type->stringValue() : nullptr;
        std::int32_t code = 0;
        if (typeName && *typeName == "forwardBackward") {
            code = 1;
        } else if (typeName && *typeName == "backward") {
            code = 2;
        }
        chunk.appendInt(++identifier);
        chunk.appendInt(code);
        chunk.appendInt(static_cast<std::int32_t>(framesOfSeconds(loop->start())));
        chunk.appendInt(static_cast<std::int32_t>(framesOfSeconds(loop->end())));
        chunk.appendInt(0);
        chunk.appendInt(0);
    }
    return chunk.appendToFile(error);
}

bool KROAudioFileWAVEContent::writeInstrumentChunk(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    if (!hasAnyMetadataKey(instrumentKeys)) {
        return true;
    }
    chunk.reset();
    chunk.setType(fourCC("inst"));
    for (const char* key : instrumentKeys) {
        const KROPropertyList* value = metadata().objectForKey(key);
        chunk.appendByte(
            static_cast<std::uint8_t>(value ? saturated<std::int64_t>(value->doubleValue()) : 0));
    }
    if (!chunk.appendToFile(error)) {
        return false;
    }
    for (const char* key : instrumentKeys) {
        metadata().removeObjectForKey(key);
    }
    return true;
}

bool KROAudioFileWAVEContent::writeCueChunks(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    std::vector<const KROAudioLabel*> points;
    for (const char* type : {"marker", "region"}) {
        for (const auto& label : labels()) {
            if (label->type() == type) {
                points.push_back(label.get());
            }
        }
    }
    const auto loops = static_cast<std::int32_t>(
        std::count_if(labels().begin(), labels().end(),
                      [](const auto& label) { return label->type() == "loop"; }));
    if (points.empty()) {
        return true;
    }
    // Identifiers go on from those of the loops.
    const auto identifier = [loops](std::size_t index) {
        return static_cast<std::int32_t>(loops + 1 + static_cast<std::int32_t>(index));
    };
    chunk.reset();
    chunk.setType(fourCC("cue "));
    chunk.appendInt(static_cast<std::int32_t>(points.size()));
    for (std::size_t index = 0; index < points.size(); ++index) {
        const auto position = static_cast<std::int32_t>(framesOfSeconds(points[index]->start()));
        chunk.appendInt(identifier(index));
        chunk.appendInt(position);
        chunk.appendFourCharCode(fourCC("data"));
        chunk.appendInt(0);
        chunk.appendInt(0);
        chunk.appendInt(position);
    }
    if (!chunk.appendToFile(error)) {
        return false;
    }
    chunk.reset();
    chunk.setType(fourCC("LIST"));
    chunk.appendFourCharCode(fourCC("adtl"));
    for (std::size_t index = 0; index < points.size(); ++index) {
        const KROAudioLabel& point = *points[index];
        if (const KROPropertyList* name = point.valueForUndefinedKey("name")) {
            const std::string text = kro::stringAsLossyASCIIString(textOf(*name));
            // The size counts the terminator and the pad byte after it.
            chunk.appendFourCharCode(fourCC("labl"));
            chunk.appendInt(static_cast<std::int32_t>(text.size() + 5 + (text.size() % 2 == 0)));
            chunk.appendInt(identifier(index));
            chunk.appendAsCString(text, true);
        }
        if (point.type() == "region") {
            chunk.appendFourCharCode(fourCC("ltxt"));
            chunk.appendInt(20);
            chunk.appendInt(identifier(index));
            chunk.appendInt(static_cast<std::int32_t>(framesOfSeconds(point.length())));
            chunk.appendFourCharCode(fourCC("rgn "));
            chunk.appendPadOfLength(8);
        }
    }
    return chunk.dataLength() <= 4 || chunk.appendToFile(error);
}

bool KROAudioFileWAVEContent::appendMetadataOfType(std::uint32_t type, std::string_view key,
                                                   KROAudioFileChunk& chunk) {
    const KROPropertyList* value = metadata().objectForKey(key);
    if (!value) {
        return false;
    }
    const std::string text = kro::stringAsLossyASCIIString(textOf(*value));
    chunk.appendFourCharCode(type);
    chunk.appendInt(static_cast<std::int32_t>(text.size() + 2 - (text.size() & 1)));
    if (text.empty()) {
        // The terminator and its pad, which the size counts.
        chunk.appendPadOfLength(2);
    } else {
        chunk.appendAsCString(text, true);
    }
    metadata().removeObjectForKey(key);
    return true;
}

bool KROAudioFileWAVEContent::writeInfoList(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    chunk.reset();
    chunk.setType(fourCC("LIST"));
    chunk.appendFourCharCode(fourCC("INFO"));
    for (const InfoEntry& entry : infoEntries) {
        appendMetadataOfType(entry.code, entry.key, chunk);
    }
    return chunk.dataLength() <= 4 || chunk.appendToFile(error);
}

bool KROAudioFileWAVEContent::writeEBUChunk(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    const KROPropertyList* isrc = metadata().objectForKey("isrc");
    if (!isrc) {
        return true;
    }
    const std::string text =
        "<ebucore:ebuCoreMain xmlns:dc=\"http://purl.org/dc/elements/1.1/\" "
        "xmlns:ebucore=\"urn:ebu:metadata-schema:ebuCore_2012\">"
        "<ebucore:coreMetadata>"
        "<ebucore:identifier typeLabel=\"GUID\" typeDefinition=\"Globally Unique Identifier\" "
        "formatLabel=\"ISRC\" formatDefinition=\"International Standard Recording Code\" "
        "formatLink=\"http://www.ebu.ch/metadata/cs/ebu_IdentifierTypeCodeCS.xml#3.7\">"
        "<dc:identifier>ISRC:" +
        kro::stringByAddingXMLEscapes(textOf(*isrc)) +
        "</dc:identifier></ebucore:identifier></ebucore:coreMetadata></ebucore:ebuCoreMain>";
    chunk.reset();
    chunk.setType(fourCC("axml"));
    chunk.appendBytes(text.data(), text.size());
    return chunk.appendToFile(error);
}

bool KROAudioFileWAVEContent::writeAcidChunk(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    if (!hasAnyMetadataKey(acidKeys) && !hasLabelOfType("slice")) {
        return true;
    }
    const auto value = [this](const char* key) { return metadata().objectForKey(key); };
    const auto number = [&](const char* key, double fallback) {
        return value(key) ? value(key)->doubleValue(fallback) : fallback;
    };
    const KROPropertyList* playback = value("playbackType");
    const bool oneShot =
        playback && playback->stringValue() && *playback->stringValue() == "oneShot";
    const KROPropertyList* key = value("musicalKey");
    const std::string* keyName = key ? key->stringValue() : nullptr;
    const auto keyIndex =
        keyName ? std::find(musicalKeys.begin(), musicalKeys.end(), *keyName) - musicalKeys.begin()
                : 0;
    startChunk(chunk, fourCC("acid"));
    chunk.appendInt((oneShot ? 1 : 0) | (key ? 2 : 0));
    chunk.appendShort(static_cast<std::int16_t>(key ? keyIndex + 48 : 0));
    chunk.appendShort(static_cast<std::int16_t>(0x8000));
    chunk.appendInt(0);
    chunk.appendInt(saturated<std::int32_t>(number("beats", 4)));
    chunk.appendShort(saturated<std::int16_t>(number("meterNumerator", 4)));
    chunk.appendShort(saturated<std::int16_t>(number("meterDenominator", 4)));
    chunk.appendFloat(static_cast<float>(number("tempo", 120.0)));
    if (!chunk.appendToFile(error)) {
        return false;
    }
    for (const char* name : acidKeys) {
        metadata().removeObjectForKey(name);
    }
    return true;
}

bool KROAudioFileWAVEContent::writeSliceChunk(KROAudioFileChunk& chunk, KROErrorPtr* error) {
    std::vector<double> slices;
    for (const auto& label : labels()) {
        if (label->type() == "slice") {
            slices.push_back(label->location());
        }
    }
    if (slices.empty()) {
        return true;
    }
    std::stable_sort(slices.begin(), slices.end());
    startChunk(chunk, fourCC("strc"));
    for (const std::int32_t value :
         {28, static_cast<std::int32_t>(slices.size()), 65, 5, 1, 0, 0}) {
        chunk.appendInt(value);
    }
    for (std::size_t index = 0; index < slices.size(); ++index) {
        const auto position = static_cast<std::int32_t>(framesOfSeconds(slices[index]));
        for (const std::int32_t value : {index == 0 ? 2 : 0, 0, position, 0, position, 0, 0, 0}) {
            chunk.appendInt(value);
        }
    }
    return chunk.appendToFile(error);
}
