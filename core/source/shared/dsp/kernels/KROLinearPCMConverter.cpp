#include "KROLinearPCMConverter.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

// Doubles of scratch: 64 KiB, a block that stays in the first-level cache.
constexpr std::size_t scratchSamples = 8192;

bool isAlignedForFloat(const void* pointer) {
    return reinterpret_cast<std::uintptr_t>(pointer) % alignof(float) == 0;
}

bool rangesOverlap(const void* a, std::size_t aSize, const void* b, std::size_t bSize) {
    const auto aStart = reinterpret_cast<std::uintptr_t>(a);
    const auto bStart = reinterpret_cast<std::uintptr_t>(b);
    return aSize != 0 && bSize != 0 && aStart < bStart + bSize && bStart < aStart + aSize;
}

KROSampleCoding codingOfRecord(const AudioStreamBasicDescription& record) {
    if (record.mFormatID == kAudioFormatULaw) {
        return KROSampleCoding::muLaw;
    }
    if (record.mFormatID == kAudioFormatALaw) {
        return KROSampleCoding::aLaw;
    }
    if (record.mFormatFlags & kAudioFormatFlagIsFloat) {
        return KROSampleCoding::floatingPoint;
    }
    // No signed flag means unsigned: 8-bit WAVE data is unsigned.
    return (record.mFormatFlags & kAudioFormatFlagIsSignedInteger)
               ? KROSampleCoding::signedInteger
               : KROSampleCoding::unsignedInteger;
}

bool isKnownFormat(AudioFormatID format) {
    return format == kAudioFormatLinearPCM || format == kAudioFormatULaw ||
           format == kAudioFormatALaw;
}

// The shape of one buffer list of a side: its count, and in each buffer a
// pointer and enough bytes for frames frames.
OSStatus checkList(const AudioBufferList& list, const KROLinearPCMConverter::Side& side,
                   std::uint64_t frames, OSStatus sizeStatus) {
    if (list.mNumberBuffers != side.buffers) {
        return kAudio_ParamError;
    }
    const std::uint64_t bytes = frames * side.bytesPerFrame;
    for (std::uint32_t index = 0; index < list.mNumberBuffers; ++index) {
        const AudioBuffer& buffer = KROAudioBufferAt(list, index);
        if (frames != 0 && buffer.mData == nullptr) {
            return kAudio_ParamError;
        }
        if (buffer.mDataByteSize < bytes) {
            return sizeStatus;
        }
    }
    return noErr;
}

void setByteSizes(AudioBufferList& list, std::uint32_t bytes) {
    for (std::uint32_t index = 0; index < list.mNumberBuffers; ++index) {
        KROAudioBufferAt(list, index).mDataByteSize = bytes;
    }
}

OSStatus readWord(std::uint32_t value, std::uint32_t* size, void* data) {
    if (*size < sizeof value) {
        return kAudioConverterErr_BadPropertySizeError;
    }
    std::memcpy(data, &value, sizeof value);
    *size = sizeof value;
    return noErr;
}

OSStatus readRecord(const AudioStreamBasicDescription& record, std::uint32_t* size, void* data) {
    if (*size < sizeof record) {
        return kAudioConverterErr_BadPropertySizeError;
    }
    std::memcpy(data, &record, sizeof record);
    *size = sizeof record;
    return noErr;
}

} // namespace

// ---- Construction ---------------------------------------------------------

OSStatus KROLinearPCMConverter::sideOfRecord(const AudioStreamBasicDescription& record,
                                             Side* side) {
    const std::uint32_t channels = record.mChannelsPerFrame;
    if (!isKnownFormat(record.mFormatID) || channels == 0 ||
        channels > KROLinearPCMConverterMaximumChannels || record.mFramesPerPacket != 1 ||
        record.mBytesPerFrame == 0 || record.mBytesPerPacket != record.mBytesPerFrame ||
        record.mBitsPerChannel > 64) {
        return kAudioConverterErr_FormatNotSupported;
    }
    const bool nonInterleaved = (record.mFormatFlags & kAudioFormatFlagIsNonInterleaved) != 0;
    const std::uint32_t channelsPerBuffer = nonInterleaved ? 1 : channels;
    if (record.mBytesPerFrame % channelsPerBuffer != 0 ||
        record.mBytesPerFrame / channelsPerBuffer > 8) {
        return kAudioConverterErr_FormatNotSupported;
    }
    Side result;
    result.record = record;
    result.bytesPerFrame = record.mBytesPerFrame;
    result.bytesPerSample = record.mBytesPerFrame / channelsPerBuffer;
    result.channelsPerBuffer = channelsPerBuffer;
    result.buffers = nonInterleaved ? channels : 1;
    result.sample.coding = codingOfRecord(record);
    result.sample.bytes = static_cast<std::uint8_t>(result.bytesPerSample);
    result.sample.bits = static_cast<std::uint8_t>(record.mBitsPerChannel);
    result.sample.bigEndian = (record.mFormatFlags & kAudioFormatFlagIsBigEndian) != 0;
    result.sample.alignedHigh = (record.mFormatFlags & kAudioFormatFlagIsAlignedHigh) != 0;
    if (!KROSampleFormatIsValid(result.sample)) {
        return kAudioConverterErr_FormatNotSupported;
    }
    *side = result;
    return noErr;
}

KROLinearPCMConverter::KROLinearPCMConverter(const Side& input, const Side& output)
    : input_(input), output_(output), channels_(input.record.mChannelsPerFrame),
      inputChannels_(channels_), outputChannels_(channels_),
      scratch_(std::max<std::size_t>(scratchSamples, channels_)) {
    auto* list =
        static_cast<AudioBufferList*>(std::calloc(1, KROAudioBufferListByteSize(input_.buffers)));
    if (list == nullptr) {
        throw std::bad_alloc();
    }
    inputList_.reset(list);
}

void KROLinearPCMConverter::ListDeleter::operator()(AudioBufferList* list) const {
    std::free(list);
}

OSStatus AudioConverterNew(const AudioStreamBasicDescription* inSourceFormat,
                           const AudioStreamBasicDescription* inDestinationFormat,
                           AudioConverterRef* outAudioConverter) {
    if (outAudioConverter == nullptr) {
        return kAudio_ParamError;
    }
    *outAudioConverter = nullptr;
    if (inSourceFormat == nullptr || inDestinationFormat == nullptr) {
        return kAudio_ParamError;
    }
    KROLinearPCMConverter::Side input;
    KROLinearPCMConverter::Side output;
    if (OSStatus status = KROLinearPCMConverter::sideOfRecord(*inSourceFormat, &input)) {
        return status;
    }
    if (OSStatus status = KROLinearPCMConverter::sideOfRecord(*inDestinationFormat, &output)) {
        return status;
    }
    // No rate or channel conversion here: no caller in the library needs one.
    if (!(inSourceFormat->mSampleRate == inDestinationFormat->mSampleRate) ||
        inSourceFormat->mChannelsPerFrame != inDestinationFormat->mChannelsPerFrame) {
        return kAudioConverterErr_OperationNotSupported;
    }
    try {
        *outAudioConverter = new KROLinearPCMConverter(input, output);
    } catch (const std::bad_alloc&) {
        return kAudio_MemFullError;
    }
    return noErr;
}

OSStatus AudioConverterDispose(AudioConverterRef inAudioConverter) {
    delete inAudioConverter;
    return noErr;
}

OSStatus AudioConverterReset(AudioConverterRef inAudioConverter) {
    return inAudioConverter ? noErr : kAudio_ParamError;
}

// ---- Properties -----------------------------------------------------------

OSStatus KROLinearPCMConverter::propertyInfo(AudioConverterPropertyID property, std::uint32_t* size,
                                             bool* writable) const {
    std::uint32_t bytes = sizeof(std::uint32_t);
    bool canWrite = false;
    switch (property) {
    case kAudioConverterCurrentInputStreamDescription:
    case kAudioConverterCurrentOutputStreamDescription:
        bytes = sizeof(AudioStreamBasicDescription);
        break;
    case kAudioConverterPropertyMaximumOutputPacketSize:
        break;
    case kAudioConverterSampleRateConverterQuality:
    case kAudioConverterPropertyDithering:
    case kAudioConverterPropertyDitherBitDepth:
        canWrite = true;
        break;
    default:
        return kAudioConverterErr_PropertyNotSupported;
    }
    if (size) {
        *size = bytes;
    }
    if (writable) {
        *writable = canWrite;
    }
    return noErr;
}

OSStatus KROLinearPCMConverter::property(AudioConverterPropertyID property, std::uint32_t* size,
                                         void* data) const {
    if (size == nullptr || data == nullptr) {
        return kAudio_ParamError;
    }
    const auto relaxed = std::memory_order_relaxed;
    switch (property) {
    case kAudioConverterCurrentInputStreamDescription:
        return readRecord(input_.record, size, data);
    case kAudioConverterCurrentOutputStreamDescription:
        return readRecord(output_.record, size, data);
    case kAudioConverterPropertyMaximumOutputPacketSize:
        return readWord(output_.record.mBytesPerPacket, size, data);
    case kAudioConverterSampleRateConverterQuality:
        return readWord(quality_.load(relaxed), size, data);
    case kAudioConverterPropertyDithering:
        return readWord(ditherType_.load(relaxed), size, data);
    case kAudioConverterPropertyDitherBitDepth:
        return readWord(ditherBitDepth_.load(relaxed), size, data);
    default:
        return kAudioConverterErr_PropertyNotSupported;
    }
}

OSStatus KROLinearPCMConverter::setProperty(AudioConverterPropertyID property, std::uint32_t size,
                                            const void* data) {
    std::atomic<std::uint32_t>* field = nullptr;
    switch (property) {
    case kAudioConverterSampleRateConverterQuality:
        field = &quality_;
        break;
    case kAudioConverterPropertyDithering:
        field = &ditherType_;
        break;
    case kAudioConverterPropertyDitherBitDepth:
        field = &ditherBitDepth_;
        break;
    default:
        return kAudioConverterErr_PropertyNotSupported;
    }
    if (data == nullptr) {
        return kAudio_ParamError;
    }
    if (size != sizeof(std::uint32_t)) {
        return kAudioConverterErr_BadPropertySizeError;
    }
    std::uint32_t value;
    std::memcpy(&value, data, sizeof value);
    field->store(value, std::memory_order_relaxed);
    return noErr;
}

OSStatus AudioConverterGetPropertyInfo(AudioConverterRef inAudioConverter,
                                       AudioConverterPropertyID inPropertyID,
                                       std::uint32_t* outSize, bool* outWritable) {
    if (inAudioConverter == nullptr) {
        return kAudio_ParamError;
    }
    return inAudioConverter->propertyInfo(inPropertyID, outSize, outWritable);
}

OSStatus AudioConverterGetProperty(AudioConverterRef inAudioConverter,
                                   AudioConverterPropertyID inPropertyID,
                                   std::uint32_t* ioPropertyDataSize, void* outPropertyData) {
    if (inAudioConverter == nullptr) {
        return kAudio_ParamError;
    }
    return inAudioConverter->property(inPropertyID, ioPropertyDataSize, outPropertyData);
}

OSStatus AudioConverterSetProperty(AudioConverterRef inAudioConverter,
                                   AudioConverterPropertyID inPropertyID,
                                   std::uint32_t inPropertyDataSize, const void* inPropertyData) {
    if (inAudioConverter == nullptr) {
        return kAudio_ParamError;
    }
    return inAudioConverter->setProperty(inPropertyID, inPropertyDataSize, inPropertyData);
}

// ---- Conversion -----------------------------------------------------------

void KROLinearPCMConverter::pointChannelsAtLists(const AudioBufferList& input,
                                                 AudioBufferList& output,
                                                 std::size_t outputFrameOffset) {
    inputStride_ = input_.bytesPerFrame;
    outputStride_ = output_.bytesPerFrame;
    for (std::uint32_t channel = 0; channel < channels_; ++channel) {
        const AudioBuffer& in = KROAudioBufferAt(input, channel / input_.channelsPerBuffer);
        AudioBuffer& out = KROAudioBufferAt(output, channel / output_.channelsPerBuffer);
        inputChannels_[channel] = static_cast<const std::uint8_t*>(in.mData) +
                                  (channel % input_.channelsPerBuffer) * input_.bytesPerSample;
        outputChannels_[channel] = static_cast<std::uint8_t*>(out.mData) +
                                   outputFrameOffset * output_.bytesPerFrame +
                                   (channel % output_.channelsPerBuffer) * output_.bytesPerSample;
    }
}

void KROLinearPCMConverter::pointChannelsAtBuffers(const std::uint8_t* input,
                                                   std::uint8_t* output) {
    inputStride_ = input_.bytesPerFrame;
    outputStride_ = output_.bytesPerFrame;
    for (std::uint32_t channel = 0; channel < input_.channelsPerBuffer; ++channel) {
        inputChannels_[channel] = input + channel * input_.bytesPerSample;
        outputChannels_[channel] = output + channel * output_.bytesPerSample;
    }
}

// The direct paths, when one side is the working float format: one pass, and
// for stereo both channels in the same pass.
bool KROLinearPCMConverter::convertNativeFloat(std::uint32_t channels, std::size_t frames) {
    const bool outputIsFloat =
        KROSampleFormatIsNativeFloat32(output_.sample) &&
        std::all_of(outputChannels_.begin(), outputChannels_.begin() + channels, isAlignedForFloat);
    const bool inputIsFloat =
        KROSampleFormatIsNativeFloat32(input_.sample) &&
        std::all_of(inputChannels_.begin(), inputChannels_.begin() + channels, isAlignedForFloat);
    if (!outputIsFloat && !inputIsFloat) {
        return false;
    }
    if (channels == 2 && convertFloatPair(outputIsFloat, inputIsFloat, frames)) {
        return true;
    }
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
        if (outputIsFloat) {
            KRODecodeSamples(input_.sample, inputChannels_[channel], inputStride_,
                             reinterpret_cast<float*>(outputChannels_[channel]),
                             outputStride_ / std::ptrdiff_t(sizeof(float)), frames);
        } else {
            KROEncodeSamples(output_.sample,
                             reinterpret_cast<const float*>(inputChannels_[channel]),
                             inputStride_ / std::ptrdiff_t(sizeof(float)), outputChannels_[channel],
                             outputStride_, frames);
        }
    }
    return true;
}

// Stereo between an interleaved side and contiguous floats, when one side is
// the working float format (both may be).
bool KROLinearPCMConverter::convertFloatPair(bool outputIsFloat, bool inputIsFloat,
                                             std::size_t frames) {
    const std::uint8_t* const* in = inputChannels_.data();
    std::uint8_t* const* out = outputChannels_.data();
    const std::ptrdiff_t inBytes = input_.bytesPerSample;
    const std::ptrdiff_t outBytes = output_.bytesPerSample;
    const std::ptrdiff_t floatBytes = sizeof(float);
    const bool inputIsPair = inputStride_ == 2 * inBytes && in[1] == in[0] + inBytes;
    const bool outputIsPair = outputStride_ == 2 * outBytes && out[1] == out[0] + outBytes;
    if (outputIsFloat && inputIsPair && outputStride_ == floatBytes) {
        KRODecodeInterleavedPair(input_.sample, in[0], reinterpret_cast<float*>(out[0]),
                                 reinterpret_cast<float*>(out[1]), frames);
        return true;
    }
    if (inputIsFloat && outputIsPair && inputStride_ == floatBytes) {
        KROEncodeInterleavedPair(output_.sample, reinterpret_cast<const float*>(in[0]),
                                 reinterpret_cast<const float*>(in[1]), out[0], frames);
        return true;
    }
    return false;
}

// The general path, through 64-bit floats, which hold every sample of every
// format exactly. A block of frames is read whole before any of it is
// written, so memory that is read and written at once works when the output
// starts at or before the input and a frame does not grow.
void KROLinearPCMConverter::convertThroughScratch(std::uint32_t channels, std::size_t frames) {
    const std::size_t blockFrames = scratch_.size() / channels;
    double* scratch = scratch_.data();
    for (std::size_t done = 0; done < frames;) {
        const std::size_t count = std::min(blockFrames, frames - done);
        const std::ptrdiff_t inputOffset = std::ptrdiff_t(done) * inputStride_;
        const std::ptrdiff_t outputOffset = std::ptrdiff_t(done) * outputStride_;
        for (std::uint32_t channel = 0; channel < channels; ++channel) {
            KRODecodeSamples(input_.sample, inputChannels_[channel] + inputOffset, inputStride_,
                             scratch + channel, channels, count);
        }
        for (std::uint32_t channel = 0; channel < channels; ++channel) {
            KROEncodeSamples(output_.sample, scratch + channel, channels,
                             outputChannels_[channel] + outputOffset, outputStride_, count);
        }
        done += count;
    }
}

void KROLinearPCMConverter::convertChannels(std::uint32_t channels, std::size_t frames,
                                            bool overlapping) {
    if (frames == 0) {
        return;
    }
    if (!overlapping && convertNativeFloat(channels, frames)) {
        return;
    }
    convertThroughScratch(channels, frames);
}

OSStatus KROLinearPCMConverter::convertBuffer(std::uint32_t inputSize, const void* input,
                                              std::uint32_t* outputSize, void* output) {
    if (outputSize == nullptr) {
        return kAudio_ParamError;
    }
    // A buffer is a run of frames; the two formats must agree on what one
    // holds, which rules out interleaving or de-interleaving here.
    if (input_.channelsPerBuffer != output_.channelsPerBuffer) {
        return kAudioConverterErr_OperationNotSupported;
    }
    if (inputSize % input_.bytesPerFrame != 0) {
        return kAudioConverterErr_InvalidInputSize;
    }
    const std::size_t frames = inputSize / input_.bytesPerFrame;
    const std::uint64_t needed = std::uint64_t(frames) * output_.bytesPerFrame;
    if (needed > *outputSize) {
        return kAudioConverterErr_InvalidOutputSize;
    }
    if (frames != 0 && (input == nullptr || output == nullptr)) {
        return kAudio_ParamError;
    }
    const bool overlapping = rangesOverlap(input, inputSize, output, needed);
    if (overlapping &&
        (reinterpret_cast<std::uintptr_t>(output) > reinterpret_cast<std::uintptr_t>(input) ||
         output_.bytesPerFrame > input_.bytesPerFrame)) {
        return kAudio_ParamError;
    }
    pointChannelsAtBuffers(static_cast<const std::uint8_t*>(input),
                           static_cast<std::uint8_t*>(output));
    convertChannels(input_.channelsPerBuffer, frames, overlapping);
    *outputSize = static_cast<std::uint32_t>(needed);
    return noErr;
}

OSStatus KROLinearPCMConverter::convertComplexBuffer(std::uint32_t frames,
                                                     const AudioBufferList* input,
                                                     AudioBufferList* output) {
    if (input == nullptr || output == nullptr) {
        return kAudio_ParamError;
    }
    if (OSStatus status = checkList(*input, input_, frames, kAudioConverterErr_InvalidInputSize)) {
        return status;
    }
    if (OSStatus status =
            checkList(*output, output_, frames, kAudioConverterErr_InvalidOutputSize)) {
        return status;
    }
    pointChannelsAtLists(*input, *output, 0);
    convertChannels(channels_, frames, false);
    setByteSizes(*output, frames * output_.bytesPerFrame);
    return noErr;
}

// Before each pull: the input format's buffers, empty, for the function to fill.
void KROLinearPCMConverter::prepareInputList() {
    AudioBufferList& list = *inputList_;
    list.mNumberBuffers = input_.buffers;
    for (std::uint32_t index = 0; index < input_.buffers; ++index) {
        KROAudioBufferAt(list, index) = AudioBuffer{input_.channelsPerBuffer, 0, nullptr};
    }
}

OSStatus KROLinearPCMConverter::checkPulledList(std::uint32_t packets) const {
    return checkList(*inputList_, input_, packets, kAudioConverterErr_InvalidInputSize);
}

OSStatus KROLinearPCMConverter::fillComplexBuffer(AudioConverterComplexInputDataProc function,
                                                  void* userData, std::uint32_t* packets,
                                                  AudioBufferList* output) {
    if (function == nullptr || packets == nullptr || output == nullptr) {
        return kAudio_ParamError;
    }
    const std::uint32_t requested = *packets;
    *packets = 0;
    if (OSStatus status =
            checkList(*output, output_, requested, kAudioConverterErr_InvalidOutputSize)) {
        return status;
    }
    std::uint32_t produced = 0;
    OSStatus status = noErr;
    while (produced < requested) {
        prepareInputList();
        std::uint32_t given = requested - produced;
        status = function(this, &given, inputList_.get(), nullptr, userData);
        if (status != noErr || given == 0) {
            break;
        }
        given = std::min(given, requested - produced);
        if ((status = checkPulledList(given)) != noErr) {
            break;
        }
        pointChannelsAtLists(*inputList_, *output, produced);
        convertChannels(channels_, given, false);
        produced += given;
    }
    *packets = produced;
    setByteSizes(*output, produced * output_.bytesPerFrame);
    return status;
}

OSStatus AudioConverterConvertBuffer(AudioConverterRef inAudioConverter,
                                     std::uint32_t inInputDataSize, const void* inInputData,
                                     std::uint32_t* ioOutputDataSize, void* outOutputData) {
    if (inAudioConverter == nullptr) {
        return kAudio_ParamError;
    }
    return inAudioConverter->convertBuffer(inInputDataSize, inInputData, ioOutputDataSize,
                                           outOutputData);
}

OSStatus AudioConverterConvertComplexBuffer(AudioConverterRef inAudioConverter,
                                            std::uint32_t inNumberPCMFrames,
                                            const AudioBufferList* inInputData,
                                            AudioBufferList* outOutputData) {
    if (inAudioConverter == nullptr) {
        return kAudio_ParamError;
    }
    return inAudioConverter->convertComplexBuffer(inNumberPCMFrames, inInputData, outOutputData);
}

OSStatus AudioConverterFillComplexBuffer(AudioConverterRef inAudioConverter,
                                         AudioConverterComplexInputDataProc inInputDataProc,
                                         void* inInputDataProcUserData,
                                         std::uint32_t* ioOutputDataPacketSize,
                                         AudioBufferList* outOutputData,
                                         AudioStreamPacketDescription*) {
    if (inAudioConverter == nullptr) {
        return kAudio_ParamError;
    }
    return inAudioConverter->fillComplexBuffer(inInputDataProc, inInputDataProcUserData,
                                               ioOutputDataPacketSize, outOutputData);
}
