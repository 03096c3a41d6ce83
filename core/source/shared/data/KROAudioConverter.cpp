#include "KROAudioConverter.h"

#include <algorithm>
#include <limits>

namespace {

constexpr std::uint64_t largestByteCount = std::numeric_limits<std::uint32_t>::max();

bool fail(KROErrorPtr* error, OSStatus status, const char* actionKey) {
    return KROFail<KROAudioConverterError>(error, status, actionKey);
}

bool succeedOrFail(OSStatus status, const char* actionKey, KROErrorPtr* error) {
    return status == noErr || fail(error, status, actionKey);
}

// The pull function of the write path. It hands over the whole source each time
// and keeps no position: the packets asked for are the whole source, so one
// call satisfies the converter.
OSStatus pullWholeSource(AudioConverterRef converter, std::uint32_t* ioNumberDataPackets,
                         AudioBufferList* ioData, AudioStreamPacketDescription**, void* userData) {
    const auto& source = *static_cast<const KROAudioBufferList*>(userData);
    const AudioBufferList& list = *source.audioBufferList();
    // The caller has checked that the counts agree; never write past ioData.
    const std::uint32_t count = std::min(list.mNumberBuffers, ioData->mNumberBuffers);
    for (std::uint32_t index = 0; index < count; ++index) {
        KROAudioBufferAt(*ioData, index) = KROAudioBufferAt(list, index);
    }
    AudioStreamBasicDescription input{};
    std::uint32_t size = sizeof input;
    AudioConverterGetProperty(converter, kAudioConverterCurrentInputStreamDescription, &size,
                              &input);
    *ioNumberDataPackets =
        input.mBytesPerPacket == 0
            ? 0
            : static_cast<std::uint32_t>(source.length() / input.mBytesPerPacket);
    return noErr;
}

// The buffers that a list in the record's format has.
std::uint32_t buffersOfRecord(const AudioStreamBasicDescription& record) {
    return (record.mFormatFlags & kAudioFormatFlagIsNonInterleaved) ? record.mChannelsPerFrame : 1;
}

} // namespace

void KROAudioConverter::ConverterDeleter::operator()(KROLinearPCMConverter* converter) const {
    AudioConverterDispose(converter);
}

KROAudioConverter::~KROAudioConverter() {
    std::lock_guard guard(lock_);
    converter_.reset();
}

bool KROAudioConverter::initWithSourceFormat(const KROAudioStreamDescription& source,
                                             const KROAudioStreamDescription& destination,
                                             KROErrorPtr* error) {
    AudioConverterRef converter = nullptr;
    const OSStatus status =
        AudioConverterNew(source.basicDescription(), destination.basicDescription(), &converter);
    if (status != noErr) {
        return fail(error, status, "KROAudioConverter_action_creating");
    }
    std::lock_guard guard(lock_);
    converter_.reset(converter);
    return true;
}

std::shared_ptr<KROAudioConverter>
KROAudioConverter::converterWithSourceFormat(const KROAudioStreamDescription& source,
                                             const KROAudioStreamDescription& destination,
                                             KROErrorPtr* error) {
    auto converter = std::make_shared<KROAudioConverter>();
    if (!converter->initWithSourceFormat(source, destination, error)) {
        return nullptr;
    }
    return converter;
}

bool KROAudioConverter::isEqual(const KROObject& other) const {
    if (this == &other) {
        return true;
    }
    const auto* converter = dynamic_cast<const KROAudioConverter*>(&other);
    return converter != nullptr && isEqualToConverter(*converter);
}

bool KROAudioConverter::isEqualToConverter(const KROAudioConverter& other) const {
    const auto mine = inputDescription();
    const auto theirs = other.inputDescription();
    return mine && theirs && mine->isEqualToDescription(*theirs);
}

std::size_t KROAudioConverter::hash() const {
    const auto input = inputDescription();
    return input ? input->hash() : 0;
}

bool KROAudioConverter::reset(KROErrorPtr* error) {
    std::lock_guard guard(lock_);
    return succeedOrFail(AudioConverterReset(converter_.get()),
                         "KROAudioConverter_action_resetting", error);
}

std::shared_ptr<KROAudioStreamDescription>
KROAudioConverter::descriptionProperty(AudioConverterPropertyID property) const {
    AudioStreamBasicDescription record{};
    std::uint32_t size = sizeof record;
    if (AudioConverterGetProperty(converter_.get(), property, &size, &record) != noErr) {
        return nullptr;
    }
    return KROAudioStreamDescription::descriptionWithBasicDescription(record);
}

std::shared_ptr<KROAudioStreamDescription> KROAudioConverter::inputDescription() const {
    return descriptionProperty(kAudioConverterCurrentInputStreamDescription);
}

std::shared_ptr<KROAudioStreamDescription> KROAudioConverter::outputDescription() const {
    return descriptionProperty(kAudioConverterCurrentOutputStreamDescription);
}

std::uint32_t KROAudioConverter::wordProperty(AudioConverterPropertyID property) const {
    std::uint32_t value = 0;
    std::uint32_t size = sizeof value;
    if (AudioConverterGetProperty(converter_.get(), property, &size, &value) != noErr) {
        return 0;
    }
    return value;
}

std::uint32_t KROAudioConverter::quality() const {
    return wordProperty(kAudioConverterSampleRateConverterQuality);
}

std::uint32_t KROAudioConverter::bitrate() const {
    return wordProperty(kAudioConverterEncodeBitRate);
}

std::uint32_t KROAudioConverter::maximumOutputPacketSize() const {
    return wordProperty(kAudioConverterPropertyMaximumOutputPacketSize);
}

std::uint32_t KROAudioConverter::ditherType() const {
    return wordProperty(kAudioConverterPropertyDithering);
}

std::uint32_t KROAudioConverter::ditherBitDepth() const {
    return wordProperty(kAudioConverterPropertyDitherBitDepth);
}

bool KROAudioConverter::setWordProperty(AudioConverterPropertyID property, std::uint32_t value,
                                        const char* actionKey, KROErrorPtr* error) {
    std::lock_guard guard(lock_);
    return succeedOrFail(
        AudioConverterSetProperty(converter_.get(), property, sizeof value, &value), actionKey,
        error);
}

bool KROAudioConverter::setQuality(std::uint32_t quality, KROErrorPtr* error) {
    return setWordProperty(kAudioConverterSampleRateConverterQuality, quality,
                           "KROAudioConverter_action_settingQuality", error);
}

bool KROAudioConverter::setBitrate(std::uint32_t bitrate, KROErrorPtr* error) {
    return setWordProperty(kAudioConverterEncodeBitRate, bitrate,
                           "KROAudioConverter_action_settingBitRate", error);
}

bool KROAudioConverter::setDitherType(std::uint32_t ditherType, KROErrorPtr* error) {
    return setWordProperty(kAudioConverterPropertyDithering, ditherType,
                           "KROAudioConverter_action_settingDitherType", error);
}

// 'dith', not 'dbit': kept as it always was, so ditherBitDepth does not follow.
bool KROAudioConverter::setDitherBitDepth(std::uint32_t ditherBitDepth, KROErrorPtr* error) {
    return setWordProperty(kAudioConverterPropertyDithering, ditherBitDepth,
                           "KROAudioConverter_action_settingDitherBitDepth", error);
}

std::optional<KROData> KROAudioConverter::magicCookie() const {
    std::uint32_t size = 0;
    OSStatus status = AudioConverterGetPropertyInfo(
        converter_.get(), kAudioConverterCompressionMagicCookie, &size, nullptr);
    if (status == noErr) {
        KROData cookie(size);
        status = AudioConverterGetProperty(converter_.get(), kAudioConverterCompressionMagicCookie,
                                           &size, cookie.data());
        if (status == noErr) {
            cookie.resize(size);
            return cookie;
        }
    }
    KROAudioConverterError::errorWithCode(
        status, KROLocalizedString("KROAudioConverter_action_gettingMagicCookie"))
        ->alert();
    return std::nullopt;
}

bool KROAudioConverter::setMagicCookie(const KROData& cookie, KROErrorPtr* error) {
    if (cookie.empty()) {
        return true;
    }
    std::lock_guard guard(lock_);
    const auto size =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(cookie.size(), largestByteCount));
    return succeedOrFail(AudioConverterSetProperty(converter_.get(),
                                                   kAudioConverterDecompressionMagicCookie, size,
                                                   cookie.data()),
                         "KROAudioConverter_action_settingMagicCookie", error);
}

void KROAudioConverter::setCallback(AudioConverterComplexInputDataProc callback, void* userData) {
    std::lock_guard guard(lock_);
    callback_ = callback;
    userData_ = userData;
}

bool KROAudioConverter::convertBufferInPlace(KROBufferList& list, KROErrorPtr* error) {
    return convertBuffer(list, list, error);
}

bool KROAudioConverter::convertBuffer(const KROBufferList& source, KROBufferList& destination,
                                      KROErrorPtr* error) {
    // Different counts fail with no error stored: callers treat it as a plain no.
    if (source.numberOfBuffers() != destination.numberOfBuffers()) {
        return false;
    }
    for (std::uint32_t index = 0; index < source.numberOfBuffers(); ++index) {
        if (!convertInputInBytes(source.bufferAtIndex(index), source.length(),
                                 destination.bufferAtIndex(index), destination.length(), error)) {
            return false;
        }
    }
    return true;
}

bool KROAudioConverter::convertInPlace(float* data, std::uint64_t frames, KROErrorPtr* error) {
    return convertInputInFrames(data, frames, data, frames, error);
}

bool KROAudioConverter::convertInputInFrames(const float* input, std::uint64_t inFrames,
                                             float* output, std::uint64_t outFrames,
                                             KROErrorPtr* error) {
    constexpr std::uint64_t largestFrameCount = largestByteCount / sizeof(float);
    if (inFrames > largestFrameCount) {
        return fail(error, kAudioConverterErr_InvalidInputSize,
                    "KROAudioConverter_action_converting");
    }
    return convertInputInBytes(input, inFrames * sizeof(float), output,
                               std::min(outFrames, largestFrameCount) * sizeof(float), error);
}

bool KROAudioConverter::convertInputInBytes(const void* input, std::uint64_t inBytes, void* output,
                                            std::uint64_t outBytes, KROErrorPtr* error) {
    if (inBytes > largestByteCount) {
        return fail(error, kAudioConverterErr_InvalidInputSize,
                    "KROAudioConverter_action_converting");
    }
    // A larger output than 32 bits can count is more room than is needed.
    auto outputSize = static_cast<std::uint32_t>(std::min(outBytes, largestByteCount));
    std::lock_guard guard(lock_);
    return succeedOrFail(AudioConverterConvertBuffer(converter_.get(),
                                                     static_cast<std::uint32_t>(inBytes), input,
                                                     &outputSize, output),
                         "KROAudioConverter_action_converting", error);
}

bool KROAudioConverter::convertInput(const void* input, std::uint64_t inBytes,
                                     KROAudioBufferList& destination, KROErrorPtr* error) {
    if (inBytes > largestByteCount) {
        return fail(error, kAudioConverterErr_InvalidInputSize,
                    "KROAudioConverter_action_converting");
    }
    // On the stack, so that a read allocates nothing.
    AudioBufferList list;
    list.mNumberBuffers = 1;
    list.mBuffers[0] = AudioBuffer{destination.numberOfChannels(),
                                   static_cast<std::uint32_t>(inBytes), const_cast<void*>(input)};
    std::lock_guard guard(lock_);
    return succeedOrFail(AudioConverterConvertComplexBuffer(
                             converter_.get(), static_cast<std::uint32_t>(destination.frames()),
                             &list, destination.audioBufferList()),
                         "KROAudioConverter_action_converting", error);
}

bool KROAudioConverter::convertBufferToAudioBuffer(const KROBufferList& source,
                                                   KROAudioBufferList& destination,
                                                   KROErrorPtr* error) {
    std::lock_guard guard(lock_);
    return succeedOrFail(AudioConverterConvertComplexBuffer(
                             converter_.get(), static_cast<std::uint32_t>(destination.frames()),
                             source.audioBufferList(), destination.audioBufferList()),
                         "KROAudioConverter_action_converting", error);
}

std::uint32_t KROAudioConverter::convertAudioBuffer(const KROAudioBufferList& source,
                                                    KROBufferList& destination,
                                                    KROErrorPtr* error) {
    std::lock_guard guard(lock_);
    AudioStreamBasicDescription input{};
    std::uint32_t size = sizeof input;
    OSStatus status = AudioConverterGetProperty(
        converter_.get(), kAudioConverterCurrentInputStreamDescription, &size, &input);
    // The pull function copies the source's buffers into the converter's list:
    // the counts must agree before it runs.
    if (status == noErr && source.numberOfBuffers() != buffersOfRecord(input)) {
        status = kAudio_ParamError;
    }
    std::uint32_t packets = static_cast<std::uint32_t>(source.frames());
    if (status == noErr) {
        status = AudioConverterFillComplexBuffer(converter_.get(), pullWholeSource,
                                                 const_cast<KROAudioBufferList*>(&source), &packets,
                                                 destination.audioBufferList(), nullptr);
    }
    if (status != noErr) {
        fail(error, status, "KROAudioConverter_action_converting");
        return 0;
    }
    return packets;
}

std::uint32_t KROAudioConverter::convertToAudioBufferUsingCallback(KROAudioBufferList& destination,
                                                                   KROErrorPtr* error) {
    std::lock_guard guard(lock_);
    std::uint32_t packets = static_cast<std::uint32_t>(destination.frames());
    const OSStatus status = AudioConverterFillComplexBuffer(
        converter_.get(), callback_, userData_, &packets, destination.audioBufferList(), nullptr);
    if (status != noErr) {
        fail(error, status, "KROAudioConverter_action_converting");
        return 0;
    }
    return packets;
}
