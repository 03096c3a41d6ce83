#include "KROAudioFileDDPContent.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>

#include "KROCRC.h"
#include "KROClassRegistry.h"
#include "KROError.h"
#include "KROStringHelpers.h"
#include "KROTextNumbers.h"
#include "KROTimeFormatter.h"
#include "KROURLExtension.h"

KRO_REGISTER_CLASS(KROAudioFileDDPContent, KROAudioFileContent)

namespace {

namespace fs = std::filesystem;

constexpr double discRate = 44100.0;
constexpr std::uint64_t bytesPerFrame = 4;
constexpr std::uint64_t sectorBytes = 2352;
constexpr double framesPerSecond = 75.0;
// A player starts the first track this far into the disc.
constexpr double leadInSeconds = 2.0;
constexpr std::size_t identificationLength = 128;
constexpr std::size_t mapEntryLength = 128;
constexpr std::size_t pqEntryLength = 64;
constexpr std::size_t packLength = 18;
constexpr std::size_t packTextLength = 12;

constexpr const char* parsingAction = "KROAudioFileDDPContent_action_parsing";

enum Code : std::int64_t {
    badIdentification = 1,
    badMap = 2,
    badPQDescriptions = 3,
    sizeMismatch = 4,
    missingFile = 5,
    badISRC = 6,
};

// The CD-TEXT types written, in order, with the keys they come from.
struct CDTextType {
    unsigned type;
    const char* albumKey;
    const char* trackKey;
};
constexpr std::array<CDTextType, 7> cdTextTypes = {{
    {0, "title", "name"},
    {1, "performers", "performer"},
    {2, "songwriter", "songwriter"},
    {3, "composer", "composer"},
    {4, "arranger", "arranger"},
    {5, "message", "message"},
    {14, "ean/upc", "isrc"},
}};
constexpr unsigned sizeInfoType = 15;

// ---------------------------------------------------------------- text

bool isPrintable(char c) {
    return c >= 0x21 && c <= 0x7E;
}

// A field of a record, trimmed of everything but printable ASCII at both
// ends; bytes past the record read as nothing.
std::string field(std::string_view record, std::size_t offset, std::size_t width) {
    if (offset >= record.size()) {
        return {};
    }
    std::string_view text = record.substr(offset, width);
    while (!text.empty() && !isPrintable(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && !isPrintable(text.back())) {
        text.remove_suffix(1);
    }
    return kro::stringWithASCIIBytes(reinterpret_cast<const std::uint8_t*>(text.data()),
                                     text.size());
}

std::int64_t numberField(std::string_view record, std::size_t offset, std::size_t width) {
    return kro::integerValue(field(record, offset, width));
}

// Cut or padded with spaces to the width.
std::string padded(std::string_view text, std::size_t width) {
    std::string result(text.substr(0, width));
    result.resize(width, ' ');
    return result;
}

std::string asciiPadded(std::string_view text, std::size_t width) {
    return padded(kro::stringAsLossyASCIIString(text), width);
}

std::string textOf(const KROPropertyList* value) {
    const std::string* text = value ? value->stringValue() : nullptr;
    return text ? *text : std::string();
}

template <typename... Arguments> std::string formatted(const char* format, Arguments... arguments) {
    std::array<char, 64> text{};
    const int length = std::snprintf(text.data(), text.size(), format, arguments...);
    return std::string(text.data(), static_cast<std::size_t>(std::max(length, 0)));
}

// ISO Latin 1 of UTF-8 text; characters beyond it become "?".
KROData latin1Bytes(std::string_view text) {
    KROData bytes;
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<std::uint8_t>(text[i]);
        const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        if (length == 2 && i + 1 < text.size()) {
            const auto code = static_cast<std::uint32_t>(
                ((lead & 0x1F) << 6) | (static_cast<std::uint8_t>(text[i + 1]) & 0x3F));
            bytes.push_back(code <= 0xFF ? static_cast<std::uint8_t>(code) : '?');
        } else {
            bytes.push_back(length == 1 ? lead : '?');
        }
        i += length;
    }
    return bytes;
}

// ---------------------------------------------------------------- files

// The bytes of a regular file; nothing for anything else, so that a map
// naming a directory or a pipe neither throws nor blocks.
std::string contentsOfFile(const std::optional<fs::path>& url) {
    std::error_code failure;
    if (!url || !fs::is_regular_file(*url, failure)) {
        return {};
    }
    const std::uintmax_t size = fs::file_size(*url, failure);
    if (failure) {
        return {};
    }
    std::ifstream stream(*url, std::ios::binary);
    std::string bytes(size, '\0');
    stream.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<std::size_t>(std::max<std::streamsize>(stream.gcount(), 0)));
    return bytes;
}

std::uint64_t sizeOfFile(const fs::path& url) {
    std::error_code failure;
    const std::uintmax_t size = fs::file_size(url, failure);
    return failure ? 0 : size;
}

// Lower-case hexadecimal of the file's MD5, read in blocks; none when it
// cannot be read.
std::optional<std::string> md5OfFile(const fs::path& url) {
    std::ifstream stream(url, std::ios::binary);
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                          EVP_MD_CTX_free);
    if (!stream || !context || EVP_DigestInit_ex(context.get(), EVP_md5(), nullptr) != 1) {
        return std::nullopt;
    }
    std::vector<char> block(1 << 16);
    while (stream) {
        stream.read(block.data(), static_cast<std::streamsize>(block.size()));
        EVP_DigestUpdate(context.get(), block.data(), static_cast<std::size_t>(stream.gcount()));
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    EVP_DigestFinal_ex(context.get(), digest.data(), &length);
    std::string text;
    for (unsigned int i = 0; i < length; ++i) {
        text += formatted("%.2x", digest[i]);
    }
    return text;
}

bool writeFile(const fs::path& url, const void* bytes, std::size_t length, KROErrorPtr* error) {
    KROFileWriter writer;
    return kro::createFile(url, error) && writer.initWithURL(url, error) &&
           writer.writeBuffer(bytes, length, error);
}

void sortByLocation(std::vector<std::shared_ptr<KROAudioLabel>>& labels) {
    std::stable_sort(labels.begin(), labels.end(),
                     [](const auto& a, const auto& b) { return a->location() < b->location(); });
}

} // namespace

// ---------------------------------------------------------------- the class side

KROAudioFileDDPContent::KROAudioFileDDPContent() {
    setFixedFormat();
}

void KROAudioFileDDPContent::setFixedFormat() {
    setEncoding(kro::fourCC("lpcm"));
    setNumberOfChannels(2);
    setBitDepth(16);
    setSampleRate(discRate);
    setIsFloatingPoint(false);
    setAudioDataByteOrder(1);
    setBitrate(1411200);
}

std::string KROAudioFileDDPContent::format() const {
    return "DDP";
}

bool KROAudioFileDDPContent::supportsURL(const fs::path& url) const {
    std::error_code failure;
    if (!fs::is_directory(url, failure)) {
        return false;
    }
    for (fs::directory_iterator entry(url, failure), end; !failure && entry != end;
         entry.increment(failure)) {
        const std::string stem = kro::lowercaseASCII(entry->path().stem().string());
        if (stem == "ddpid" || stem == "ddpms") {
            return true;
        }
    }
    return false;
}

std::optional<fs::path> KROAudioFileDDPContent::URLForFilename(std::string_view name) const {
    const std::string wanted = kro::lowercaseASCII(name);
    std::error_code failure;
    for (fs::directory_iterator entry(URL(), failure), end; !failure && entry != end;
         entry.increment(failure)) {
        if (kro::lowercaseASCII(entry->path().filename().string()) == wanted) {
            return entry->path();
        }
    }
    return std::nullopt;
}

bool KROAudioFileDDPContent::setValue(const KROPropertyList& value, std::string_view key) {
    if (key == "includeCDTEXT" && (value.isBoolean() || value.isNumber())) {
        includeCDTEXT_ = value.boolValue();
        return true;
    }
    if (key == "md5Method" && value.isString()) {
        md5Method_ = *value.stringValue();
        return true;
    }
    return KROAudioFileContent::setValue(value, key);
}

KROErrorPtr KROAudioFileDDPContent::errorWithCode(std::int64_t code,
                                                  const std::string& action) const {
    return KROAudioFileDDPContentError::errorWithCode(code, action);
}

std::uint64_t KROAudioFileDDPContent::maximumAudioDataLength() const {
    return std::numeric_limits<std::uint64_t>::max();
}

// ---------------------------------------------------------------- reading

bool KROAudioFileDDPContent::parse(KROErrorPtr* error) {
    const std::string identification = contentsOfFile(URLForFilename("DDPID"));
    const std::string map = contentsOfFile(URLForFilename("DDPMS"));
    if (identification.size() != identificationLength) {
        return failWithFileName(error, badIdentification, parsingAction);
    }
    if (map.size() % mapEntryLength != 0) {
        return failWithFileName(error, badMap, parsingAction);
    }
    std::string pq;
    KROData cdText;
    if (!readMap(map, pq, cdText, error)) {
        return false;
    }
    readIdentification(identification);
    readPQDescriptions(pq);
    auto tracks = labelsOfType("track");
    sortByLocation(tracks);
    for (std::size_t i = 0; i < tracks.size(); ++i) {
        tracks[i]->setValueForUndefinedKey(KROPropertyList(formatted("Track %ld", long(i + 1))),
                                           "name");
    }
    readCDText(cdText, tracks);
    return openAudio(error);
}

bool KROAudioFileDDPContent::readMap(const std::string& map, std::string& pqDescriptions,
                                     KROData& cdText, KROErrorPtr* error) {
    for (std::size_t offset = 0; offset + mapEntryLength <= map.size(); offset += mapEntryLength) {
        const std::string_view entry(map.data() + offset, mapEntryLength);
        const auto url = URLForFilename(field(entry, 74, 17));
        if (!url) {
            return failWithFileName(error, missingFile, parsingAction);
        }
        const auto length = static_cast<std::uint64_t>(numberField(entry, 14, 8));
        std::uint64_t expected = 0;
        if (entry[4] == 'D') {
            setAudioURL(*url);
            cdFrames_ = length;
            pregapLength_ = double(numberField(entry, 42, 4)) / framesPerSecond +
                            double(numberField(entry, 46, 4)) / framesPerSecond;
            expected = cdFrames_ * sectorBytes;
        } else if (field(entry, 30, 8) == "PQ DESCR") {
            pqDescriptions = contentsOfFile(url);
            if (pqDescriptions.size() % pqEntryLength != 0) {
                return failWithFileName(error, badPQDescriptions, parsingAction);
            }
            expected = length;
        } else if (field(entry, 30, 6) == "CDTEXT") {
            const std::string bytes = contentsOfFile(url);
            cdText.assign(bytes.begin(), bytes.end());
            expected = length;
        }
        if (expected != 0 && expected != sizeOfFile(*url)) {
            return failWithFileName(error, sizeMismatch, parsingAction);
        }
    }
    return true;
}

void KROAudioFileDDPContent::readIdentification(const std::string& identification) {
    const auto store = [&](const char* key, std::size_t offset, std::size_t width) {
        std::string value = field(identification, offset, width);
        if (!value.empty()) {
            metadata().setObjectForKey(key, KROPropertyList(std::move(value)));
        }
    };
    store("ean/upc", 8, 13);
    // Eight bytes before where the writer puts it, as images in circulation
    // expect: the last eight characters of a written identifier are lost.
    store("masterID", 30, 48);
    store("userText", 96, 32);
}

void KROAudioFileDDPContent::readPQDescriptions(const std::string& descriptions) {
    KROTimeFormatter formatter;
    formatter.setFormat(KROTimeFormatCDHoursMinutesSecondsFrames);
    formatter.setSampleRate(discRate);
    // An ISRC given at index 0 belongs to the track that starts at index 1.
    std::string isrc;
    std::shared_ptr<KROAudioLabel> lastTrack;
    for (std::size_t offset = 0; offset + pqEntryLength <= descriptions.size();
         offset += pqEntryLength) {
        const std::string_view entry(descriptions.data() + offset, pqEntryLength);
        const std::string track = field(entry, 4, 2);
        const std::int64_t index = numberField(entry, 6, 2);
        const std::string time =
            formatted("%02ld:%02ld:%02ld.%02ld", long(numberField(entry, 8, 2)),
                      long(numberField(entry, 10, 2)), long(numberField(entry, 12, 2)),
                      long(numberField(entry, 14, 2)));
        double seconds = 0.0;
        formatter.getObjectValue(seconds, time);
        const double location = seconds - leadInSeconds;
        std::string entryISRC = field(entry, 20, 12);
        if (index == 0 || !entryISRC.empty()) {
            isrc = std::move(entryISRC);
        }
        if (track == "AA") {
            if (lastTrack) {
                lastTrack->setEnd(location);
            }
        } else if (kro::integerValue(track) == 0) {
            if (!isrc.empty()) {
                metadata().setObjectForKey("isrc", KROPropertyList(std::move(isrc)));
                isrc.clear();
            }
            std::string upc = field(entry, 32, 13);
            if (!upc.empty()) {
                metadata().setObjectForKey("ean/upc", KROPropertyList(std::move(upc)));
            }
        } else if (index == 0) {
            if (lastTrack) {
                lastTrack->setEnd(location);
            }
        } else if (index == 1) {
            if (lastTrack && lastTrack->end() == 0.0) {
                lastTrack->setEnd(location);
            }
            auto label = KROAudioLabel::labelOfType("track");
            label->setStart(location);
            label->setValueForUndefinedKey(KROPropertyList(entry[17] == 'S'), "scms");
            if (!isrc.empty()) {
                label->setValueForUndefinedKey(KROPropertyList(std::move(isrc)), "isrc");
                isrc.clear();
            }
            std::string userText = field(entry, 45, 19);
            if (!userText.empty()) {
                label->setValueForUndefinedKey(KROPropertyList(std::move(userText)), "userText");
            }
            labels().push_back(label);
            lastTrack = std::move(label);
        } else if (index > 1) {
            auto label = KROAudioLabel::labelOfType("index");
            label->setLocation(location);
            labels().push_back(std::move(label));
        }
    }
}

void KROAudioFileDDPContent::readCDText(const KROData& packs,
                                        const std::vector<std::shared_ptr<KROAudioLabel>>& tracks) {
    const auto store = [&](int type, const KROData& block) {
        const auto kind = std::find_if(cdTextTypes.begin(), cdTextTypes.end(),
                                       [&](const CDTextType& t) { return int(t.type) == type; });
        if (kind == cdTextTypes.end()) {
            return;
        }
        std::size_t number = 0;
        for (std::size_t start = 0;; ++number) {
            const auto zero =
                std::find(block.begin() + std::ptrdiff_t(start), block.end(), std::uint8_t{0});
            const auto stop = static_cast<std::size_t>(zero - block.begin());
            std::string text = kro::stringWithASCIIBytes(block.data() + start, stop - start);
            if (!text.empty()) {
                if (number == 0) {
                    metadata().setObjectForKey(kind->albumKey, KROPropertyList(std::move(text)));
                } else if (number <= tracks.size()) {
                    tracks[number - 1]->setValueForUndefinedKey(KROPropertyList(std::move(text)),
                                                                kind->trackKey);
                }
            }
            if (stop == block.size()) {
                break;
            }
            start = stop + 1;
        }
    };
    int type = -1;
    KROData block;
    for (std::size_t offset = 0; offset + packLength <= packs.size(); offset += packLength) {
        const int packType = packs[offset] & 0x0F;
        if (packType != type) {
            store(type, block);
            block.clear();
            type = packType;
        }
        block.insert(block.end(), packs.begin() + std::ptrdiff_t(offset + 4),
                     packs.begin() + std::ptrdiff_t(offset + 4 + packTextLength));
    }
}

bool KROAudioFileDDPContent::openAudio(KROErrorPtr* error) {
    if (audioURL_.empty()) {
        return failWithFileName(error, missingFile, parsingAction);
    }
    auto reader = std::make_unique<KROFileReader>();
    std::uint64_t size = 0;
    if (!reader->initWithURL(audioURL_, error) || !kro::getSizeOfFile(audioURL_, size, error)) {
        return false;
    }
    reader->setCached(false);
    setFileSize(size);
    pregapFrames_ = pregapLength_ > 0.0 ? static_cast<std::uint64_t>(pregapLength_ * discRate) : 0;
    // A pregap past the end of the samples leaves nothing rather than wrapping.
    const std::uint64_t skipped = std::min(pregapFrames_, size / bytesPerFrame);
    setFrames(size / bytesPerFrame - skipped);
    audioDataPosition_ = pregapFrames_ * bytesPerFrame;
    audioDataLength_ = size - skipped * bytesPerFrame;
    fileReader_ = std::move(reader);
    return true;
}

bool KROAudioFileDDPContent::getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                                      KROErrorPtr* error) {
    return getLinearAudio(buffer, frame, error);
}

// ---------------------------------------------------------------- writing

bool KROAudioFileDDPContent::beginWrite(KROErrorPtr* error) {
    for (const auto& label : labels()) {
        const std::string isrc = textOf(label->valueForUndefinedKey("isrc"));
        if (!isrc.empty() && isrc.size() != 12) {
            return KROFail<KROAudioFileDDPContentError>(error, badISRC,
                                                        "KROAudioFileDDPContent_action_preparing");
        }
    }
    setFixedFormat();
    if (!makeConverterForWriting(error)) {
        return false;
    }
    setURL(newWritingURL());
    const fs::path audio = URL() / "image.dat";
    auto writer = std::make_unique<KROFileWriter>();
    if (!kro::createDirectory(URL(), error) || !kro::createFile(audio, error) ||
        !writer->initWithURL(audio, error)) {
        return false;
    }
    fileWriter_ = std::move(writer);
    return true;
}

bool KROAudioFileDDPContent::writeAudio(const KROAudioBufferList& buffer, KROErrorPtr* error) {
    return writeLinearAudio(buffer, error);
}

bool KROAudioFileDDPContent::endWrite(KROErrorPtr* error) {
    if (!fileWriter_) {
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_writing");
    }
    // A disc holds whole sectors: the last one is filled with silence.
    const std::uint64_t length = audioDataLengthOfFrames(frames());
    const std::uint64_t padding = (sectorBytes - length % sectorBytes) % sectorBytes;
    const KROData silence(padding, 0);
    const bool padded = fileWriter_->writeBuffer(silence.data(), silence.size(), error) &&
                        fileWriter_->flush(error);
    closeFileWriter();
    if (!padded) {
        return false;
    }
    digestList_ = md5Method_ == "masterFile" ? "filename,md5\n" : "";
    recordDigest("image.dat");

    const std::string identificationText = identification();
    const std::string pq = pqDescriptions();
    if (!writeImageFile("DDPID", identificationText.data(), identificationText.size(), error) ||
        !writeImageFile("PQ_DESCR", pq.data(), pq.size(), error)) {
        return false;
    }
    std::optional<std::uint64_t> cdTextLength;
    if (includeCDTEXT_) {
        const KROData packs = cdText();
        if (!writeImageFile("CDTEXT.BIN", packs.data(), packs.size(), error)) {
            return false;
        }
        cdTextLength = packs.size();
    }
    const std::string mapText = map(pq.size(), cdTextLength, (length + padding) / sectorBytes);
    if (!writeImageFile("DDPMS", mapText.data(), mapText.size(), error)) {
        return false;
    }
    if (md5Method_ == "masterFile") {
        return writeFile(URL() / "md5.txt", digestList_.data(), digestList_.size(), error);
    }
    return true;
}

bool KROAudioFileDDPContent::writeImageFile(const std::string& name, const void* bytes,
                                            std::size_t length, KROErrorPtr* error) {
    if (!writeFile(URL() / name, bytes, length, error)) {
        return false;
    }
    if (md5Method_ == "allFiles" || md5Method_ == "masterFile") {
        recordDigest(name);
    }
    return true;
}

// A digest that cannot be written is left out; the image itself is whole.
void KROAudioFileDDPContent::recordDigest(const std::string& name) {
    if (md5Method_ != "audioFileOnly" && md5Method_ != "allFiles" && md5Method_ != "masterFile") {
        return;
    }
    const auto digest = md5OfFile(URL() / name);
    if (!digest) {
        return;
    }
    if (md5Method_ == "masterFile") {
        digestList_ += name + "," + *digest + "\n";
    } else {
        writeFile(URL() / (name + ".MD5"), digest->data(), digest->size(), nullptr);
    }
}

std::vector<std::shared_ptr<KROAudioLabel>>
KROAudioFileDDPContent::labelsOfType(std::string_view type) const {
    std::vector<std::shared_ptr<KROAudioLabel>> result;
    std::copy_if(labels().begin(), labels().end(), std::back_inserter(result),
                 [type](const auto& label) { return label->type() == type; });
    return result;
}

std::string KROAudioFileDDPContent::identification() const {
    const std::string userText =
        kro::stringAsLossyASCIIString(textOf(metadata().objectForKey("ddpUserText")).substr(0, 32));
    std::string text = "DDP 2.00";
    text += asciiPadded(textOf(metadata().objectForKey("ean/upc")), 13);
    text += std::string(17, ' ');
    text += asciiPadded(textOf(metadata().objectForKey("masterID")), 48);
    text += " CD     ";
    text += userText.empty() ? std::string(2, ' ') : formatted("%.2d", int(userText.size()));
    text += padded(userText, 32);
    return text;
}

std::string KROAudioFileDDPContent::pqDescriptionForPosition(double position,
                                                             const KROAudioLabel* label,
                                                             std::int64_t trackNumber,
                                                             std::int64_t indexNumber) const {
    const auto total = static_cast<long>(std::llround(position * framesPerSecond));
    const auto item = [label](std::string_view key) {
        return label ? label->valueForUndefinedKey(key) : nullptr;
    };
    std::string entry = "VVVS";
    entry += trackNumber == leadOutTrack ? std::string("AA") : formatted("%02d", int(trackNumber));
    entry += formatted("%02d", int(indexNumber));
    entry += "00";
    // Minutes are not held to two digits: an image past 99 minutes widens
    // the entry rather than wrapping its time.
    entry += formatted("%02ld%02ld%02ld", total / 4500, (total / 75) % 60, total % 75);
    entry += "0";
    entry += item("scms") && item("scms")->boolValue() ? "S" : "1";
    entry += "  ";
    const std::string isrc =
        label || trackNumber != 0 ? textOf(item("isrc")) : textOf(metadata().objectForKey("isrc"));
    entry += asciiPadded(isrc, 12);
    entry += asciiPadded(trackNumber == 0 ? textOf(metadata().objectForKey("ean/upc")) : "", 13);
    entry += asciiPadded(textOf(item("userText")), 19);
    return entry;
}

std::string KROAudioFileDDPContent::pqDescriptions() const {
    auto tracks = labelsOfType("track");
    auto indexes = labelsOfType("index");
    sortByLocation(tracks);
    sortByLocation(indexes);
    const KROAudioLabel* first = tracks.empty() ? nullptr : tracks.front().get();
    const double base = (first ? first->location() : 0.0) - leadInSeconds;
    std::string text = pqDescriptionForPosition(0.0, nullptr, 0, 0);
    text += pqDescriptionForPosition(0.0, first, 1, 0);
    for (std::size_t n = 0; n < tracks.size(); ++n) {
        const KROAudioLabel& track = *tracks[n];
        const auto number = static_cast<std::int64_t>(n + 1);
        text += pqDescriptionForPosition(track.location() - base, &track, number, 1);
        std::int64_t indexNumber = 2;
        for (const auto& index : indexes) {
            if (index->location() > track.location() && index->location() < track.end()) {
                text += pqDescriptionForPosition(index->location() - base, index.get(), number,
                                                 indexNumber++);
            }
        }
        if (n + 1 < tracks.size() && track.end() < tracks[n + 1]->location()) {
            text +=
                pqDescriptionForPosition(track.end() - base, tracks[n + 1].get(), number + 1, 0);
        }
    }
    // The lead-out twice, as plants expect, and not moved by base.
    const double leadOut = (tracks.empty() ? 0.0 : tracks.back()->end()) + leadInSeconds;
    const std::string entry = pqDescriptionForPosition(leadOut, nullptr, leadOutTrack, 1);
    return text + entry + entry;
}

KROData KROAudioFileDDPContent::cdTextPacksForType(unsigned type,
                                                   const std::vector<std::string>& titles,
                                                   std::uint64_t& start) {
    KROData block;
    std::vector<std::size_t> starts;
    for (const std::string& title : titles) {
        starts.push_back(block.size());
        const KROData bytes = latin1Bytes(title);
        block.insert(block.end(), bytes.begin(), bytes.end());
        block.push_back(0);
    }
    if (block.size() == titles.size()) {
        return {};
    }
    const std::size_t count = (block.size() + packTextLength - 1) / packTextLength;
    KROData packs(count * packLength, 0);
    for (std::size_t k = 0; k < count; ++k) {
        std::uint8_t* pack = &packs[k * packLength];
        const std::size_t position = k * packTextLength;
        pack[0] = static_cast<std::uint8_t>(0x80 + type);
        pack[2] = static_cast<std::uint8_t>((start + k) & 0xFF);
        for (std::size_t i = 0; i < starts.size(); ++i) {
            const std::size_t end = i + 1 < starts.size() ? starts[i + 1] : block.size();
            if (starts[i] <= position && position < end) {
                pack[1] = static_cast<std::uint8_t>(i);
                pack[3] =
                    static_cast<std::uint8_t>(std::min<std::size_t>(position - starts[i], 15));
            }
        }
        std::copy_n(block.begin() + std::ptrdiff_t(position),
                    std::min(packTextLength, block.size() - position), pack + 4);
        addCRCToPack(pack);
    }
    start += count;
    return packs;
}

void KROAudioFileDDPContent::addCRCToPack(std::uint8_t* pack) {
    const std::uint32_t crc = KROCRC::crcForCCITT16()->crcForBuffer(pack, 16);
    pack[16] = static_cast<std::uint8_t>(crc >> 8);
    pack[17] = static_cast<std::uint8_t>(crc & 0xFF);
}

KROData KROAudioFileDDPContent::cdText() const {
    auto tracks = labelsOfType("track");
    sortByLocation(tracks);
    std::uint64_t sequence = 0;
    std::array<std::uint8_t, 36> sizes{};
    KROData packs;
    for (const CDTextType& kind : cdTextTypes) {
        std::vector<std::string> titles = {textOf(metadata().objectForKey(kind.albumKey))};
        for (const auto& track : tracks) {
            titles.push_back(textOf(track->valueForUndefinedKey(kind.trackKey)));
        }
        const KROData typePacks = cdTextPacksForType(kind.type, titles, sequence);
        packs.insert(packs.end(), typePacks.begin(), typePacks.end());
        sizes[4 + kind.type] = static_cast<std::uint8_t>(typePacks.size() / packLength);
    }
    sizes[0] = 0; // ISO Latin 1
    sizes[1] = 1; // the first track
    sizes[2] = static_cast<std::uint8_t>(tracks.size());
    sizes[4 + sizeInfoType] = 3;
    sizes[20] = static_cast<std::uint8_t>((sequence + 2) & 0xFF);
    for (std::size_t j = 0; j < 3; ++j) {
        std::array<std::uint8_t, packLength> pack{};
        pack[0] = 0x80 + sizeInfoType;
        pack[1] = static_cast<std::uint8_t>(j);
        pack[2] = static_cast<std::uint8_t>((sequence + j) & 0xFF);
        std::copy_n(sizes.begin() + std::ptrdiff_t(j * packTextLength), packTextLength, &pack[4]);
        addCRCToPack(pack.data());
        packs.insert(packs.end(), pack.begin(), pack.end());
    }
    return packs;
}

std::string KROAudioFileDDPContent::map(std::uint64_t pqLength,
                                        std::optional<std::uint64_t> cdTextLength,
                                        std::uint64_t sectors) const {
    const std::string tail(37, ' ');
    std::string text = "VVVMS0        " + formatted("%8d", int(pqLength)) + "        PQ DESCR    " +
                       std::string(17, ' ') + "            017PQ_DESCR         " + tail;
    if (cdTextLength) {
        text += "VVVMS0        " + formatted("%8d", int(*cdTextLength)) + "        CDTEXT      " +
                "             00  " + "            017CDTEXT.BIN       " + tail;
    }
    text += "VVVMD0        " + formatted("%8d", int(sectors)) + "     150        DA00" +
            std::string(17, ' ') + "            017image.dat        " + tail;
    return text;
}
