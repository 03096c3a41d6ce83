#include "KROAudioFileInfo.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "KROAudioFileChunk.h"
#include "KROAudioFileChunkList.h"
#include "KROClassRegistry.h"
#include "KROFileReader.h"
#include "KROFileResource.h"
#include "KROLocalizedString.h"
#include "KROStringHelpers.h"

KRO_REGISTER_CLASS(KROAudioFileInfo, KROObject)

namespace {

using kro::fourCC;

// The whole file as one chunk in the byte order, so that every value read
// past its end is 0 rather than a failure.
KROAudioFileChunk fileChunk(KROFileReader& reader, std::uint64_t size, std::int64_t byteOrder) {
    KROAudioFileChunk file;
    file.setFile(&reader);
    file.setByteOrder(byteOrder);
    file.setDataLength(size);
    return file;
}

// Walks IFF or RIFF chunk headers from offset 12, each step taking the pad
// byte of an odd size, until the visitor answers false. At most as many
// headers as a chunk list reads.
template <typename Visit>
void walkForm(const KROAudioFileChunk& file, std::uint64_t fileSize, Visit visit) {
    std::uint64_t position = 12;
    for (std::size_t count = 0; count < KROAudioFileChunkList::maximumChunkCount && fileSize >= 8 &&
                                position < fileSize - 8;
         ++count) {
        const std::uint32_t code = file.fourCharCodeAtPosition(position);
        const auto size = static_cast<std::uint32_t>(file.intValueAtPosition(position + 4));
        if (!visit(code, size, position)) {
            return;
        }
        position += std::uint64_t{size} + 8 + (size & 1);
    }
}

// The number that the start of the text gives, or 0.
double numberOfText(const std::string& text) {
    double value = 0.0;
    const char* start = text.data();
    while (start < text.data() + text.size() && *start == ' ') {
        ++start;
    }
    std::from_chars(start, text.data() + text.size(), value);
    return std::isfinite(value) && value > 0 ? value : 0.0;
}

} // namespace

bool KROAudioFileInfo::initWithURL(const std::filesystem::path& url, KROErrorPtr* error) {
    const auto opening = [&] {
        return KROFail<KROAudioFileInfoError>(error, 1, "KROAudioFileInfo_action_opening");
    };
    if (!kro::getSizeOfFile(url, fileSize_, nullptr) || fileSize_ < 4) {
        return opening();
    }
    displayName_ = kro::filename(url);
    if (const auto date = kro::modificationDate(url)) {
        modificationDate_ = *date;
    }
    KROFileReader reader;
    if (!reader.initWithURL(url, nullptr)) {
        return opening();
    }
    const KROAudioFileChunk file = fileChunk(reader, fileSize_, KROAudioFileChunk::bigEndian);
    const std::uint32_t magic = file.fourCharCodeAtPosition(0);
    const bool isVOX = kro::lowercaseASCII(url.extension().string()) == ".vox";
    bool parsed = false;
    if (magic == fourCC("riff")) {
        parsed = parseWAV64(reader, error);
    } else if (magic == fourCC("RIFF")) {
        parsed = parseWAVE(reader, error);
    } else if (magic == fourCC("FORM")) {
        parsed = parseAIFF(reader, error);
    } else if ((magic >> 16) == 0x0538) {
        parsed = parseSFIL(reader, error);
    } else if (magic == fourCC(".snd")) {
        parsed = parseAU(reader, error);
    } else if (isVOX) {
        parsed = parseVOX(reader, error);
    } else if (magic == fourCC("fLaC")) {
        parsed = parseFLAC(reader, error);
    } else if (magic == fourCC("OggS")) {
        parsed = parseVorbis(reader, error);
    } else if (const auto& resources = reader.resources(); resources && !resources->empty()) {
        parsed = parseSDII(reader, error);
    }
    // A parser that fails on a magic it knows gives way to the fallback too.
    if (!parsed && !parseFileWithCoreAudio(url)) {
        return KROFail<KROAudioFileInfoError>(error, 2, "KROAudioFileInfo_action_opening");
    }
    length_ = sampleRate_ > 0 ? static_cast<double>(frames_) / sampleRate_ : 0.0;
    return true;
}

void KROAudioFileInfo::setFramesOfBytes(std::uint64_t bytes) {
    const std::uint64_t bytesPerFrame = (bitDepth_ >> 3) * numberOfChannels_;
    frames_ = bytesPerFrame == 0 ? 0 : bytes / bytesPerFrame;
}

bool KROAudioFileInfo::parseAIFF(KROFileReader& reader, KROErrorPtr* error) {
    format_ = KROLocalizedString("KROAudioFileInfo_format_aiff");
    encoding_ = fourCC("lpcm");
    const KROAudioFileChunk file = fileChunk(reader, fileSize_, KROAudioFileChunk::bigEndian);
    bool hasCommon = false;
    bool hasSound = false;
    walkForm(file, fileSize_, [&](std::uint32_t code, std::uint32_t, std::uint64_t position) {
        if (code != fourCC("COMM")) {
            return true;
        }
        // 22 bytes, whatever the chunk's size says.
        numberOfChannels_ = static_cast<std::uint16_t>(file.shortValueAtPosition(position + 8));
        bitDepth_ = static_cast<std::uint16_t>(file.shortValueAtPosition(position + 14));
        const double rate = file.float80ValueAtPosition(position + 16);
        sampleRate_ = std::isfinite(rate) ? rate : 0.0;
        const std::uint32_t compression = file.fourCharCodeAtPosition(position + 26);
        if (compression == fourCC("fl32") || compression == fourCC("FL32")) {
            bitDepth_ = 32;
            floatingPoint_ = true;
        }
        hasCommon = true;
        return false;
    });
    walkForm(file, fileSize_, [&](std::uint32_t code, std::uint32_t size, std::uint64_t) {
        if (code != fourCC("SSND")) {
            return true;
        }
        setFramesOfBytes(size >= 8 ? size - 8 : 0);
        hasSound = true;
        return false;
    });
    if (!hasCommon || !hasSound) {
        KROFail<KROAudioFileInfoError>(error, 1, "KROAudioFileInfo_action_parsingAIFF");
    }
    return true;
}

bool KROAudioFileInfo::readWAVEFormat(const KROAudioFileChunk& file, std::uint64_t position,
                                      KROErrorPtr* error) {
    const auto tag = static_cast<std::uint16_t>(file.shortValueAtPosition(position));
    if (tag != 1 && tag != 3 && tag != 7 && tag != 0xFFFE) {
        return KROFail<KROAudioFileInfoError>(error, 2, "KROAudioFileInfo_action_parsingWAVE");
    }
    encoding_ = tag == 7 ? fourCC("ulaw") : fourCC("lpcm");
    floatingPoint_ = tag == 3;
    numberOfChannels_ = static_cast<std::uint16_t>(file.shortValueAtPosition(position + 2));
    sampleRate_ = static_cast<std::uint32_t>(file.intValueAtPosition(position + 4));
    bitDepth_ = static_cast<std::uint16_t>(file.shortValueAtPosition(position + 14));
    return true;
}

bool KROAudioFileInfo::parseWAVE(KROFileReader& reader, KROErrorPtr* error) {
    format_ = KROLocalizedString("KROAudioFileInfo_format_wave");
    const KROAudioFileChunk file = fileChunk(reader, fileSize_, KROAudioFileChunk::littleEndian);
    bool hasFormat = false;
    bool hasData = false;
    bool failed = false;
    walkForm(file, fileSize_, [&](std::uint32_t code, std::uint32_t size, std::uint64_t position) {
        if (code == fourCC("fmt ")) {
            failed = !readWAVEFormat(file, position + 8, error);
            hasFormat = true;
        } else if (code == fourCC("data") && bitDepth_ != 0 && numberOfChannels_ != 0) {
            // Known only after 'fmt ': a 'data' chunk before it is missed.
            setFramesOfBytes(size);
            hasData = true;
        }
        return !failed;
    });
    if (failed) {
        return false;
    }
    if (!hasFormat || !hasData) {
        KROFail<KROAudioFileInfoError>(error, 1, "KROAudioFileInfo_action_parsingWAVE");
    }
    return true;
}

bool KROAudioFileInfo::parseWAV64(KROFileReader& reader, KROErrorPtr* error) {
    format_ = KROLocalizedString("KROAudioFileInfo_format_wav64");
    encoding_ = fourCC("lpcm");
    const KROAudioFileChunk file = fileChunk(reader, fileSize_, KROAudioFileChunk::littleEndian);
    bool hasFormat = false;
    bool hasData = false;
    std::uint64_t position = 40;
    for (std::size_t count = 0; count < KROAudioFileChunkList::maximumChunkCount &&
                                fileSize_ >= 24 && position < fileSize_ - 24;
         ++count) {
        const std::uint32_t code = file.fourCharCodeAtPosition(position);
        const auto size = static_cast<std::uint64_t>(file.longLongValueAtPosition(position + 16));
        if (code == fourCC("fmt ")) {
            // The tag's action names WAVE, as the two formats share it.
            if (!readWAVEFormat(file, position + 24, error)) {
                return false;
            }
            hasFormat = true;
        } else if (code == fourCC("data")) {
            // Kept: the size counts the 24 header bytes, so frames come out high.
            setFramesOfBytes(size);
            hasData = true;
        }
        // A size of no header would hold the walk in place.
        if (size < 24 || size > fileSize_) {
            break;
        }
        position += (size + 7) / 8 * 8;
    }
    if (!hasFormat || !hasData) {
        KROFail<KROAudioFileInfoError>(error, 1, "KROAudioFileInfo_action_parsingWAV64");
    }
    return true;
}

bool KROAudioFileInfo::parseSFIL(KROFileReader& reader, KROErrorPtr*) {
    format_ = KROLocalizedString("KROAudioFileInfo_format_sd1");
    encoding_ = fourCC("lpcm");
    numberOfChannels_ = 1;
    const KROAudioFileChunk file = fileChunk(reader, fileSize_, KROAudioFileChunk::bigEndian);
    sampleRate_ = static_cast<std::uint32_t>(file.intValueAtPosition(1020));
    bitDepth_ = static_cast<std::uint16_t>(file.shortValueAtPosition(1028));
    setFramesOfBytes(static_cast<std::uint32_t>(file.intValueAtPosition(184)));
    return true;
}

bool KROAudioFileInfo::parseSDII(KROFileReader& reader, KROErrorPtr*) {
    format_ = "Sound Designer II File";
    encoding_ = fourCC("lpcm");
    floatingPoint_ = false;
    double bytesPerSample = 0;
    double rate = 0;
    double channels = 0;
    if (const auto& resources = reader.resources()) {
        for (const auto& resource : *resources) {
            if (resource->type() != fourCC("STR ") || resource->data().empty()) {
                continue;
            }
            // A Pascal string: a count byte, then the text.
            const KROData& bytes = resource->data();
            const std::size_t count = std::min<std::size_t>(bytes[0], bytes.size() - 1);
            const double value =
                numberOfText(std::string(bytes.begin() + 1, bytes.begin() + 1 + long(count)));
            if (resource->ID() == 1000) {
                bytesPerSample = value;
            } else if (resource->ID() == 1001) {
                rate = value;
            } else if (resource->ID() == 1002) {
                channels = value;
            }
        }
    }
    bitDepth_ = static_cast<std::uint64_t>(std::min(bytesPerSample, 8.0)) * 8;
    sampleRate_ = rate;
    numberOfChannels_ = static_cast<std::uint64_t>(std::min(channels, 65535.0));
    if (bitDepth_ == 0 || sampleRate_ == 0 || numberOfChannels_ == 0) {
        return false;
    }
    setFramesOfBytes(fileSize_);
    bitrate_ = numberOfChannels_ * bitDepth_ * static_cast<std::uint64_t>(std::min(rate, 1e9));
    return true;
}

bool KROAudioFileInfo::parseAU(KROFileReader& reader, KROErrorPtr* error) {
    format_ = KROLocalizedString("KROAudioFileInfo_format_AU");
    encoding_ = fourCC("lpcm");
    const KROAudioFileChunk file = fileChunk(reader, fileSize_, KROAudioFileChunk::bigEndian);
    switch (file.intValueAtPosition(12)) {
    case 1:
        bitDepth_ = 8;
        encoding_ = fourCC("ulaw");
        break;
    case 2:
        bitDepth_ = 8;
        break;
    case 3:
        bitDepth_ = 16;
        break;
    case 4:
        bitDepth_ = 24;
        break;
    case 5:
        bitDepth_ = 32;
        break;
    case 6:
        bitDepth_ = 32;
        floatingPoint_ = true;
        break;
    case 27:
        bitDepth_ = 8;
        encoding_ = fourCC("alaw");
        break;
    default:
        return KROFail<KROAudioFileInfoError>(error, 2, "KROAudioFileInfo_action_parsingAU");
    }
    sampleRate_ = static_cast<std::uint32_t>(file.intValueAtPosition(16));
    numberOfChannels_ = static_cast<std::uint32_t>(file.intValueAtPosition(20));
    const auto offset = static_cast<std::uint32_t>(file.intValueAtPosition(4));
    setFramesOfBytes(offset < fileSize_ ? fileSize_ - offset : 0);
    return true;
}

bool KROAudioFileInfo::parseVOX(KROFileReader&, KROErrorPtr*) {
    format_ = KROLocalizedString("KROAudioFileInfo_format_vox");
    encoding_ = fourCC("ulaw");
    numberOfChannels_ = 1;
    bitDepth_ = 8;
    sampleRate_ = 8000;
    frames_ = fileSize_;
    return true;
}

bool KROAudioFileInfo::parseFLAC(KROFileReader& reader, KROErrorPtr*) {
    format_ = KROLocalizedString("KROAudioFileInfo_format_flac");
    encoding_ = fourCC("flac");
    const KROAudioFileChunk file = fileChunk(reader, fileSize_, KROAudioFileChunk::bigEndian);
    // The metadata blocks follow the magic: a byte of last flag and type,
    // 24 bits of length. The stream info block is the first.
    std::uint64_t position = 4;
    for (std::size_t count = 0; count < 128 && position + 4 <= fileSize_; ++count) {
        const auto header = static_cast<std::uint32_t>(file.intValueAtPosition(position));
        const std::uint64_t length = header & 0xFFFFFF;
        if (((header >> 24) & 0x7F) == 0 && length >= 18) {
            // 20 bits of rate, 3 of channels less 1, 5 of depth less 1, 36 of samples.
            const auto fields =
                static_cast<std::uint64_t>(file.longLongValueAtPosition(position + 14));
            sampleRate_ = static_cast<double>(fields >> 44);
            numberOfChannels_ = ((fields >> 41) & 0x7) + 1;
            bitDepth_ = ((fields >> 36) & 0x1F) + 1;
            frames_ = fields & 0xFFFFFFFFFull;
        }
        if ((header >> 31) != 0) {
            break;
        }
        position += 4 + length;
    }
    // Answers true whatever the blocks held.
    return true;
}

bool KROAudioFileInfo::parseVorbis(KROFileReader& reader, KROErrorPtr*) {
    format_ = KROLocalizedString("KROAudioFileInfo_format_vorbis");
    encoding_ = fourCC("vorb");
    const KROAudioFileChunk file = fileChunk(reader, fileSize_, KROAudioFileChunk::littleEndian);
    // The first page holds the identification packet after its segment table.
    const std::uint64_t packet = 27 + static_cast<std::uint8_t>(file.charValueAtPosition(26));
    if (file.charValueAtPosition(packet) != 1 || file.stringAtPosition(packet + 1, 6) != "vorbis") {
        return false;
    }
    numberOfChannels_ = static_cast<std::uint8_t>(file.charValueAtPosition(packet + 11));
    sampleRate_ = static_cast<std::uint32_t>(file.intValueAtPosition(packet + 12));
    if (numberOfChannels_ == 0 || sampleRate_ == 0) {
        return false;
    }
    // The length is the granule position of the last page, found within the
    // largest page's reach of the end.
    constexpr std::uint64_t reach = 65307;
    const std::uint64_t start = fileSize_ > reach ? fileSize_ - reach : 0;
    KROData tail;
    if (reader.setPosition(start) && reader.getData(tail, fileSize_ - start)) {
        for (std::size_t at = tail.size() >= 14 ? tail.size() - 14 : 0; at-- > 0;) {
            if (tail[at] == 'O' && tail[at + 1] == 'g' && tail[at + 2] == 'g' &&
                tail[at + 3] == 'S') {
                frames_ = static_cast<std::uint64_t>(file.longLongValueAtPosition(start + at + 6));
                break;
            }
        }
    }
    return true;
}

bool KROAudioFileInfo::parseFileWithCoreAudio(const std::filesystem::path& url) {
    KROFileReader reader;
    std::uint64_t size = 0;
    if (!kro::getSizeOfFile(url, size) || !reader.initWithURL(url, nullptr)) {
        return false;
    }
    const KROAudioFileChunk file = fileChunk(reader, size, KROAudioFileChunk::bigEndian);
    if (file.fourCharCodeAtPosition(0) != fourCC("caff")) {
        return false;
    }
    format_ = KROLocalizedString("KROAudioFileInfo_format_caf");
    std::uint64_t bytesPerPacket = 0;
    std::uint64_t framesPerPacket = 0;
    bool described = false;
    std::uint64_t position = 8;
    for (std::size_t count = 0;
         count < KROAudioFileChunkList::maximumChunkCount && position + 12 <= size; ++count) {
        const std::uint32_t code = file.fourCharCodeAtPosition(position);
        auto chunkSize = static_cast<std::uint64_t>(file.longLongValueAtPosition(position + 4));
        const std::uint64_t body = position + 12;
        if (code == fourCC("desc")) {
            const double rate = file.doubleValueAtPosition(body);
            sampleRate_ = std::isfinite(rate) && rate > 0 ? rate : 0.0;
            encoding_ = file.fourCharCodeAtPosition(body + 8);
            const auto flags = static_cast<std::uint32_t>(file.intValueAtPosition(body + 12));
            bytesPerPacket = static_cast<std::uint32_t>(file.intValueAtPosition(body + 16));
            framesPerPacket = static_cast<std::uint32_t>(file.intValueAtPosition(body + 20));
            numberOfChannels_ = static_cast<std::uint32_t>(file.intValueAtPosition(body + 24));
            bitDepth_ = static_cast<std::uint32_t>(file.intValueAtPosition(body + 28));
            floatingPoint_ = encoding_ == fourCC("lpcm") && (flags & 1) != 0;
            described = true;
        } else if (code == fourCC("data")) {
            // A size of -1 runs to the end; the edit count comes first.
            const std::uint64_t bytes =
                chunkSize == ~std::uint64_t{0} || chunkSize > size - body ? size - body : chunkSize;
            if (bytesPerPacket != 0) {
                frames_ = (bytes > 4 ? bytes - 4 : 0) / bytesPerPacket * framesPerPacket;
            }
        } else if (code == fourCC("pakt")) {
            frames_ = static_cast<std::uint64_t>(file.longLongValueAtPosition(body + 8));
        }
        if (chunkSize > size - body) {
            break;
        }
        position = body + chunkSize;
    }
    return described && numberOfChannels_ != 0 && sampleRate_ > 0;
}
