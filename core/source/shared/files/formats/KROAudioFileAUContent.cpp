#include "KROAudioFileAUContent.h"

#include <limits>

#include "KROAudioFileChunk.h"
#include "KROAudioFileFieldValues.h"
#include "KROClassRegistry.h"
#include "KROError.h"
#include "KROStringHelpers.h"

KRO_REGISTER_CLASS(KROAudioFileAUContent, KROAudioFileContent)

namespace {

using kro::fourCC;

constexpr std::uint64_t headerSize = 24;

struct Encoding {
    std::int32_t code;
    const char* encoding;
    std::uint64_t bitDepth;
    bool isFloat;
};
constexpr Encoding encodings[] = {
    {1, "ulaw", 8, false},  {2, "lpcm", 8, false}, {3, "lpcm", 16, false}, {4, "lpcm", 24, false},
    {5, "lpcm", 32, false}, {6, "lpcm", 32, true}, {27, "alaw", 8, false},
};

} // namespace

KROAudioFileAUContent::KROAudioFileAUContent() {
    setEncoding(fourCC("lpcm"));
    setAudioDataByteOrder(KROAudioFileChunk::bigEndian);
}

std::string KROAudioFileAUContent::format() const {
    return "AU File";
}

std::string KROAudioFileAUContent::extension() const {
    return "au";
}

bool KROAudioFileAUContent::supportsURL(const std::filesystem::path& url) const {
    return fileStartsWith(url, ".snd");
}

KROErrorPtr KROAudioFileAUContent::errorWithCode(std::int64_t code,
                                                 const std::string& action) const {
    return KROAudioFileAUContentError::errorWithCode(code, action);
}

AudioFormatFlags KROAudioFileAUContent::audioDataFormatFlags() const {
    return signedAudioDataFormatFlags();
}

std::uint64_t KROAudioFileAUContent::maximumAudioDataLength() const {
    return std::numeric_limits<std::uint64_t>::max();
}

bool KROAudioFileAUContent::parse(KROErrorPtr* error) {
    if (!openFileReader(error)) {
        return false;
    }
    setAudioDataByteOrder(KROAudioFileChunk::bigEndian);
    setEncoding(fourCC("lpcm"));
    KROAudioFileChunk header;
    header.setFile(fileReader_.get());
    header.setDataLength(headerSize);
    header.loadFromFile();
    const std::int32_t code = header.intValueAtPosition(12);
    const Encoding* found = nullptr;
    for (const Encoding& entry : encodings) {
        found = entry.code == code ? &entry : found;
    }
    const auto rate = static_cast<std::uint32_t>(header.intValueAtPosition(16));
    const auto channels = static_cast<std::uint32_t>(header.intValueAtPosition(20));
    if (!found || rate == 0 || channels == 0) {
        return failWithFileName(error, 1, "KROAudioFileContent_action_parsing");
    }
    setEncoding(fourCC(found->encoding));
    setBitDepth(found->bitDepth);
    setIsFloatingPoint(found->isFloat);
    setSampleRate(rate);
    setNumberOfChannels(channels);
    setBitrate(std::uint64_t{channels} * found->bitDepth * rate);
    audioDataPosition_ = static_cast<std::uint32_t>(header.intValueAtPosition(4));
    audioDataLength_ = audioDataPosition_ < fileSize() ? fileSize() - audioDataPosition_ : 0;
    setFrames(audioDataLength_ / audioDataLengthOfFrames(1));
    return true;
}

bool KROAudioFileAUContent::getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                                     KROErrorPtr* error) {
    return getLinearAudio(buffer, frame, error);
}

bool KROAudioFileAUContent::beginWrite(KROErrorPtr* error) {
    setAudioDataByteOrder(KROAudioFileChunk::bigEndian);
    std::int32_t code = 0;
    if (encoding() == fourCC("alaw")) {
        code = 27;
    } else if (encoding() == fourCC("ulaw")) {
        code = 1;
    } else {
        for (const Encoding& entry : encodings) {
            const bool linear = std::string_view(entry.encoding) == "lpcm";
            if (linear && entry.bitDepth == bitDepth() && entry.isFloat == isFloatingPoint()) {
                code = entry.code;
            }
        }
    }
    if (!beginLinearWrite(error)) {
        return false;
    }
    KROAudioFileChunk chunk;
    chunk.setFile(fileWriter_.get());
    chunk.setByteOrder(KROAudioFileChunk::bigEndian);
    chunk.appendFourCharCode(fourCC(".snd"));
    chunk.appendInt(static_cast<std::int32_t>(headerSize));
    chunk.appendInt(0);
    chunk.appendInt(code);
    chunk.appendInt(kro::saturated<std::int32_t>(sampleRate()));
    chunk.appendInt(static_cast<std::int32_t>(numberOfChannels()));
    audioDataPosition_ = headerSize;
    dataChunkSizePosition_ = 8;
    return chunk.appendToFile(error);
}

bool KROAudioFileAUContent::writeAudio(const KROAudioBufferList& buffer, KROErrorPtr* error) {
    return writeLinearAudio(buffer, error);
}

bool KROAudioFileAUContent::endWrite(KROErrorPtr* error) {
    if (!fileWriter_) {
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_writing");
    }
    const std::uint64_t bytes = audioDataLengthOfFrames(frames());
    if (bytes % 2 != 0 && fileWriter_->setPositionToEnd()) {
        fileWriter_->writeBuffer("", 1);
    }
    const bool done =
        fileWriter_->flush(error) && fileWriter_->setPosition(dataChunkSizePosition_, error) &&
        fileWriter_->writeIntValue(
            static_cast<std::int32_t>(__builtin_bswap32(static_cast<std::uint32_t>(bytes))),
            error) &&
        fileWriter_->flush(error);
    closeFileWriter();
    return done;
}
