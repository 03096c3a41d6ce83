#include "KROAudioFileSDIIContent.h"

#include <charconv>
#include <cmath>

#include "KROAudioFileChunk.h"
#include "KROClassRegistry.h"
#include "KROError.h"
#include "KROFileResource.h"
#include "KROResourceForkParser.h"
#include "KROStringHelpers.h"

KRO_REGISTER_CLASS(KROAudioFileSDIIContent, KROAudioFileContent)

namespace {

using kro::fourCC;

// The resource's bytes as a big-endian chunk.
KROAudioFileChunk chunkOf(const KROFileResource& resource) {
    KROAudioFileChunk chunk;
    chunk.setByteOrder(KROAudioFileChunk::bigEndian);
    chunk.appendData(resource.data());
    return chunk;
}

// The number at the start of a Pascal string's text, or 0.
double numberOfPascalString(const KROData& bytes) {
    if (bytes.empty()) {
        return 0.0;
    }
    const std::size_t count = std::min<std::size_t>(bytes[0], bytes.size() - 1);
    const auto* text = reinterpret_cast<const char*>(bytes.data() + 1);
    double value = 0.0;
    std::from_chars(text, text + count, value);
    return std::isfinite(value) && value > 0 ? value : 0.0;
}

std::string macRomanText(const KROData& bytes, std::uint64_t position, std::uint64_t length) {
    if (position > bytes.size() || length > bytes.size() - position) {
        return {};
    }
    return KROResourceForkParser::stringFromMacRoman(
        KROResourceForkParser::Bytes(bytes.data() + position, length));
}

} // namespace

KROAudioFileSDIIContent::KROAudioFileSDIIContent() {
    setEncoding(fourCC("lpcm"));
    setAudioDataByteOrder(KROAudioFileChunk::bigEndian);
}

std::string KROAudioFileSDIIContent::format() const {
    return "Sound Designer II File";
}

std::string KROAudioFileSDIIContent::extension() const {
    return "sd2";
}

bool KROAudioFileSDIIContent::supportsURL(const std::filesystem::path& url) const {
    std::error_code ignored;
    KROFileReader reader;
    if (!std::filesystem::is_regular_file(url, ignored) || !reader.initWithURL(url, nullptr)) {
        return false;
    }
    const auto& resources = reader.resources();
    return resources && !resources->empty();
}

KROErrorPtr KROAudioFileSDIIContent::errorWithCode(std::int64_t code,
                                                   const std::string& action) const {
    return KROAudioFileSDIIContentError::errorWithCode(code, action);
}

bool KROAudioFileSDIIContent::parse(KROErrorPtr* error) {
    if (!openFileReader(error)) {
        return false;
    }
    setAudioDataByteOrder(KROAudioFileChunk::bigEndian);
    setEncoding(fourCC("lpcm"));
    const auto& resources = fileReader_->resources();
    double bytesPerSample = 0;
    double rate = 0;
    double channels = 0;
    for (const auto& resource : resources ? *resources : KROFileResources{}) {
        if (resource->type() != fourCC("STR ")) {
            continue;
        }
        const double value = numberOfPascalString(resource->data());
        if (resource->ID() == 1000) {
            bytesPerSample = value;
        } else if (resource->ID() == 1001) {
            rate = value;
        } else if (resource->ID() == 1002) {
            channels = value;
        }
    }
    setBitDepth(8 * static_cast<std::uint64_t>(std::min(bytesPerSample, 8.0)));
    setSampleRate(std::min(rate, 1e9));
    setNumberOfChannels(static_cast<std::uint64_t>(std::min(channels, 65535.0)));
    if (bitDepth() == 0 || sampleRate() == 0 || numberOfChannels() == 0) {
        return failWithFileName(error, impossibleFormat, "KROAudioFileContent_action_parsing");
    }
    setBitrate(numberOfChannels() * bitDepth() * static_cast<std::uint64_t>(sampleRate()));
    audioDataPosition_ = 0;
    audioDataLength_ = fileSize();
    setFrames(audioDataLength_ / audioDataLengthOfFrames(1));
    for (const auto& resource : *resources) {
        if (resource->ID() != 1000) {
            continue;
        }
        if (resource->type() == fourCC("sdML")) {
            readMarkers(*resource);
        } else if (resource->type() == fourCC("ddRL")) {
            readRegions(*resource);
        } else if (resource->type() == fourCC("sdLL")) {
            readLoops(*resource);
        }
    }
    return true;
}

void KROAudioFileSDIIContent::readMarkers(const KROFileResource& resource) {
    const KROAudioFileChunk chunk = chunkOf(resource);
    const auto count = static_cast<std::uint16_t>(chunk.shortValueAtPosition(6));
    if (count == 0) {
        return;
    }
    // The records run to the resource's end, whatever the count says.
    for (std::uint64_t offset = 8; offset + 20 <= chunk.dataLength();) {
        const auto position = static_cast<std::uint32_t>(chunk.intValueAtPosition(offset + 4));
        const auto nameLength = static_cast<std::uint32_t>(chunk.intValueAtPosition(offset + 16));
        auto marker = KROAudioLabel::labelOfType("marker");
        marker->setLocation(position / sampleRate());
        if (const std::string name = macRomanText(resource.data(), offset + 20, nameLength);
            !name.empty()) {
            marker->setValueForUndefinedKey(KROPropertyList(name), "name");
        }
        labels().push_back(std::move(marker));
        offset += 20 + std::uint64_t{nameLength};
    }
}

void KROAudioFileSDIIContent::readRegions(const KROFileResource& resource) {
    constexpr std::uint64_t recordSize = 56;
    const KROAudioFileChunk chunk = chunkOf(resource);
    if (chunk.dataLength() <= 18) {
        return;
    }
    for (std::uint64_t offset = 22; offset + 52 < chunk.dataLength(); offset += recordSize) {
        const auto start = static_cast<std::uint32_t>(chunk.intValueAtPosition(offset));
        const auto end = static_cast<std::uint32_t>(chunk.intValueAtPosition(offset + 4));
        auto region = KROAudioLabel::labelOfType("region");
        region->setStart(start / sampleRate());
        region->setLength((double(end) - double(start)) / sampleRate());
        const auto nameLength = static_cast<std::uint8_t>(chunk.charValueAtPosition(offset + 20));
        if (const std::string name = macRomanText(resource.data(), offset + 21, nameLength);
            !name.empty()) {
            region->setValueForUndefinedKey(KROPropertyList(name), "name");
        }
        labels().push_back(std::move(region));
    }
}

void KROAudioFileSDIIContent::readLoops(const KROFileResource& resource) {
    constexpr std::uint64_t recordSize = 14;
    const KROAudioFileChunk chunk = chunkOf(resource);
    const auto count = static_cast<std::uint16_t>(chunk.shortValueAtPosition(6));
    for (std::uint64_t index = 0;
         index < count && 8 + (index + 1) * recordSize <= chunk.dataLength(); ++index) {
        const std::uint64_t record = 8 + index * recordSize;
        const auto start = static_cast<std::uint32_t>(chunk.intValueAtPosition(record));
        const auto end = static_cast<std::uint32_t>(chunk.intValueAtPosition(record + 4));
        auto loop = KROAudioLabel::labelOfType("loop");
        loop->setLocation(start / sampleRate());
        loop->setLength((double(end) - double(start)) / sampleRate());
        const std::int16_t mode = chunk.shortValueAtPosition(record + 10);
        if (mode == 0x75 || mode == 0x76) {
            loop->setValueForUndefinedKey(
                KROPropertyList(mode == 0x75 ? "forward" : "forwardBackward"), "loopType");
        }
        labels().push_back(std::move(loop));
    }
}

bool KROAudioFileSDIIContent::getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                                       KROErrorPtr* error) {
    return getLinearAudio(buffer, frame, error);
}
