#include "KROAudioFileSFILContent.h"

#include "KROAudioFileChunk.h"
#include "KROClassRegistry.h"
#include "KROError.h"
#include "KROStringHelpers.h"

KRO_REGISTER_CLASS(KROAudioFileSFILContent, KROAudioFileContent)

namespace {

constexpr std::size_t headerSize = 1336;
constexpr std::uint64_t markerCount = 10;

const char* loopTypeOfMode(std::int8_t mode) {
    return mode == 1 ? "forward" : mode == 2 ? "forwardBackward" : nullptr;
}

} // namespace

KROAudioFileSFILContent::KROAudioFileSFILContent() {
    setEncoding(kro::fourCC("lpcm"));
    setAudioDataByteOrder(KROAudioFileChunk::bigEndian);
    setNumberOfChannels(1);
}

std::string KROAudioFileSFILContent::format() const {
    return "Sound Designer I File";
}

std::string KROAudioFileSFILContent::extension() const {
    return "sd";
}

bool KROAudioFileSFILContent::supportsURL(const std::filesystem::path& url) const {
    return fileStartsWith(url, "\x05\x38");
}

KROErrorPtr KROAudioFileSFILContent::errorWithCode(std::int64_t code,
                                                   const std::string& action) const {
    return KROAudioFileSFILContentError::errorWithCode(code, action);
}

bool KROAudioFileSFILContent::parse(KROErrorPtr* error) {
    if (!openFileReader(error)) {
        return false;
    }
    KROData bytes;
    if (!fileReader_->setPositionToBeginning(error) ||
        !fileReader_->getData(bytes, headerSize, error)) {
        return false;
    }
    KROAudioFileChunk header;
    header.setByteOrder(KROAudioFileChunk::bigEndian);
    header.appendData(bytes);
    setSampleRate(static_cast<std::uint32_t>(header.intValueAtPosition(1020)));
    setBitDepth(static_cast<std::uint16_t>(header.shortValueAtPosition(1028)));
    const std::uint64_t bytesPerSample = bitDepth() >> 3;
    if (bytesPerSample == 0 || sampleRate() == 0) {
        return failWithFileName(error, impossibleFormat, "KROAudioFileContent_action_parsing");
    }
    setBitrate(bitDepth() * static_cast<std::uint64_t>(sampleRate()));
    audioDataPosition_ = headerSize;
    audioDataLength_ = static_cast<std::uint32_t>(header.intValueAtPosition(184));
    setFrames(audioDataLength_ / bytesPerSample);
    const auto seconds = [&](std::int32_t bytePosition) {
        return static_cast<double>(static_cast<std::uint32_t>(bytePosition) / bytesPerSample) /
               sampleRate();
    };
    for (std::uint64_t index = 0; index < markerCount; ++index) {
        const std::uint64_t record = 348 + 40 * index;
        if (header.charValueAtPosition(record) != 0) {
            continue;
        }
        auto marker = KROAudioLabel::labelOfType("marker");
        marker->setLocation(seconds(header.intValueAtPosition(record + 2)));
        if (auto name = header.pascalStringAtPosition(record + 6)) {
            marker->setValueForUndefinedKey(KROPropertyList(std::move(*name)), "name");
        }
        labels().push_back(std::move(marker));
    }
    struct Loop {
        std::uint64_t start;
        std::uint64_t end;
        std::uint64_t mode;
    };
    for (const Loop loop : {Loop{752, 756, 1332}, Loop{1324, 1328, 1333}}) {
        const std::int32_t start = header.intValueAtPosition(loop.start);
        if (start == -1) {
            continue;
        }
        auto label = KROAudioLabel::labelOfType("loop");
        label->setStart(seconds(start));
        label->setEnd(seconds(header.intValueAtPosition(loop.end)));
        if (const char* type = loopTypeOfMode(header.charValueAtPosition(loop.mode))) {
            label->setValueForUndefinedKey(KROPropertyList(type), "loopType");
        }
        labels().push_back(std::move(label));
    }
    return true;
}

bool KROAudioFileSFILContent::getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                                       KROErrorPtr* error) {
    return getLinearAudio(buffer, frame, error);
}
