// The Linux stand-in for the platform's AudioConverter, behind the platform's
// own function names so that KROAudioConverter reads the same on every
// system. It converts between any two of the formats that
// KROSampleConversion.h handles:
//
//   'lpcm' integers of 1 to 32 bits in containers of 1 to 4 bytes (signed, or
//   unsigned when the signed flag is clear, as 8-bit WAVE has it), floats of
//   32 and 64 bits, either byte order, interleaved or not, packed or aligned
//   high or low in their containers; 'ulaw' and 'alaw' of 8 bits.
//
// The two formats must have the same rate and channel count: no rate or channel
// conversion, since no caller in the library changes either. One packet is one
// frame. Anything else fails at construction: a format that is not one of the
// above with kAudioConverterErr_FormatNotSupported ('fmt?'), a pair of
// supported formats that differ in rate or channels with
// kAudioConverterErr_OperationNotSupported ('op??').
//
// Conversions allocate nothing: every buffer they use is made by
// AudioConverterNew. A converter is used by one thread at a time; the caller
// serialises (KROAudioConverter holds its lock). Property reads may come from
// any thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "KROAudioBufferListRecord.h"
#include "KROAudioStreamBasicDescription.h"
#include "KROSampleConversion.h"

class KROLinearPCMConverter;
using AudioConverterRef = KROLinearPCMConverter*;
using AudioConverterPropertyID = std::uint32_t;

// Supplies source packets to AudioConverterFillComplexBuffer: on entry
// *ioNumberDataPackets is the number wanted, on return the number given,
// 0 at the end of the data. ioData has one buffer per buffer of the input
// format; the function points them at its data. A non-zero status stops the
// conversion and is returned by AudioConverterFillComplexBuffer.
using AudioConverterComplexInputDataProc = OSStatus (*)(
    AudioConverterRef inAudioConverter, std::uint32_t* ioNumberDataPackets, AudioBufferList* ioData,
    AudioStreamPacketDescription** outDataPacketDescription, void* inUserData);

inline constexpr AudioConverterPropertyID kAudioConverterPropertyMaximumOutputPacketSize =
    KROFourCharCode("xops");
inline constexpr AudioConverterPropertyID kAudioConverterSampleRateConverterQuality =
    KROFourCharCode("srcq");
inline constexpr AudioConverterPropertyID kAudioConverterCurrentInputStreamDescription =
    KROFourCharCode("acid");
inline constexpr AudioConverterPropertyID kAudioConverterCurrentOutputStreamDescription =
    KROFourCharCode("acod");
inline constexpr AudioConverterPropertyID kAudioConverterCompressionMagicCookie =
    KROFourCharCode("cmgc");
inline constexpr AudioConverterPropertyID kAudioConverterDecompressionMagicCookie =
    KROFourCharCode("dmgc");
inline constexpr AudioConverterPropertyID kAudioConverterEncodeBitRate = KROFourCharCode("brat");
inline constexpr AudioConverterPropertyID kAudioConverterPropertyDithering =
    KROFourCharCode("dith");
inline constexpr AudioConverterPropertyID kAudioConverterPropertyDitherBitDepth =
    KROFourCharCode("dbit");

inline constexpr std::uint32_t kAudioConverterQuality_Max = 0x7F;
inline constexpr std::uint32_t kAudioConverterQuality_High = 0x60;
inline constexpr std::uint32_t kAudioConverterQuality_Medium = 0x40;
inline constexpr std::uint32_t kAudioConverterQuality_Low = 0x20;
inline constexpr std::uint32_t kAudioConverterQuality_Min = 0;

inline constexpr OSStatus kAudioConverterErr_FormatNotSupported =
    static_cast<OSStatus>(KROFourCharCode("fmt?"));
inline constexpr OSStatus kAudioConverterErr_OperationNotSupported =
    static_cast<OSStatus>(KROFourCharCode("op??"));
inline constexpr OSStatus kAudioConverterErr_PropertyNotSupported =
    static_cast<OSStatus>(KROFourCharCode("prop"));
inline constexpr OSStatus kAudioConverterErr_InvalidInputSize =
    static_cast<OSStatus>(KROFourCharCode("insz"));
inline constexpr OSStatus kAudioConverterErr_InvalidOutputSize =
    static_cast<OSStatus>(KROFourCharCode("otsz"));
inline constexpr OSStatus kAudioConverterErr_BadPropertySizeError =
    static_cast<OSStatus>(KROFourCharCode("!siz"));

// The most channels a format may have here; more is taken as a broken record.
constexpr std::uint32_t KROLinearPCMConverterMaximumChannels = 1024;

// Makes a converter; on failure *outAudioConverter is null.
OSStatus AudioConverterNew(const AudioStreamBasicDescription* inSourceFormat,
                           const AudioStreamBasicDescription* inDestinationFormat,
                           AudioConverterRef* outAudioConverter);
OSStatus AudioConverterDispose(AudioConverterRef inAudioConverter);
// Clears state between unrelated passages; this path keeps none.
OSStatus AudioConverterReset(AudioConverterRef inAudioConverter);

// 'acid', 'acod' (a record), 'srcq', 'dith', 'dbit', 'xops' (32 bits). 'brat',
// 'cmgc' and 'dmgc' belong to encoders and decoders: 'prop' here.
OSStatus AudioConverterGetPropertyInfo(AudioConverterRef inAudioConverter,
                                       AudioConverterPropertyID inPropertyID,
                                       std::uint32_t* outSize, bool* outWritable);
OSStatus AudioConverterGetProperty(AudioConverterRef inAudioConverter,
                                   AudioConverterPropertyID inPropertyID,
                                   std::uint32_t* ioPropertyDataSize, void* outPropertyData);
// 'srcq', 'dith' and 'dbit' are stored and read back; nothing uses them.
OSStatus AudioConverterSetProperty(AudioConverterRef inAudioConverter,
                                   AudioConverterPropertyID inPropertyID,
                                   std::uint32_t inPropertyDataSize, const void* inPropertyData);

// One buffer of each format: the input must be a whole number of frames
// ('insz') and the output must hold them ('otsz'); both formats must have as
// many channels in one buffer ('op??'). *ioOutputDataSize becomes the bytes
// written. Input and output may be the same memory when a frame does not
// grow; other overlaps fail with kAudio_ParamError.
OSStatus AudioConverterConvertBuffer(AudioConverterRef inAudioConverter,
                                     std::uint32_t inInputDataSize, const void* inInputData,
                                     std::uint32_t* ioOutputDataSize, void* outOutputData);

// inNumberPCMFrames frames between lists laid out as the two formats: one
// buffer when interleaved, one per channel when not (else kAudio_ParamError).
// Every buffer must hold the frames ('insz', 'otsz'); the output buffers'
// mDataByteSize become the bytes written. The lists must not overlap.
OSStatus AudioConverterConvertComplexBuffer(AudioConverterRef inAudioConverter,
                                            std::uint32_t inNumberPCMFrames,
                                            const AudioBufferList* inInputData,
                                            AudioBufferList* outOutputData);

// Pulls input through inInputDataProc until *ioOutputDataPacketSize packets
// are made or the function gives none. The output buffers must hold the
// packets asked for ('otsz'). On return *ioOutputDataPacketSize and the
// output buffers' mDataByteSize tell what was made, also when the function
// failed. Packets that the function gives beyond the request are not kept.
OSStatus AudioConverterFillComplexBuffer(AudioConverterRef inAudioConverter,
                                         AudioConverterComplexInputDataProc inInputDataProc,
                                         void* inInputDataProcUserData,
                                         std::uint32_t* ioOutputDataPacketSize,
                                         AudioBufferList* outOutputData,
                                         AudioStreamPacketDescription* outPacketDescription);

class KROLinearPCMConverter {
public:
    // One side of the conversion, read from its record.
    struct Side {
        AudioStreamBasicDescription record{};
        KROSampleFormat sample;
        std::uint32_t buffers = 0;
        std::uint32_t channelsPerBuffer = 0;
        std::uint32_t bytesPerFrame = 0;
        std::uint32_t bytesPerSample = 0;
    };

    // The side of a record, or the status that refuses it.
    static OSStatus sideOfRecord(const AudioStreamBasicDescription& record, Side* side);

    KROLinearPCMConverter(const Side& input, const Side& output);

    const Side& input() const { return input_; }
    const Side& output() const { return output_; }

    OSStatus convertBuffer(std::uint32_t inputSize, const void* input, std::uint32_t* outputSize,
                           void* output);
    OSStatus convertComplexBuffer(std::uint32_t frames, const AudioBufferList* input,
                                  AudioBufferList* output);
    OSStatus fillComplexBuffer(AudioConverterComplexInputDataProc function, void* userData,
                               std::uint32_t* packets, AudioBufferList* output);

    OSStatus propertyInfo(AudioConverterPropertyID property, std::uint32_t* size,
                          bool* writable) const;
    OSStatus property(AudioConverterPropertyID property, std::uint32_t* size, void* data) const;
    OSStatus setProperty(AudioConverterPropertyID property, std::uint32_t size, const void* data);

private:
    struct ListDeleter {
        void operator()(AudioBufferList* list) const;
    };

    // Points the channel tables at the buffers of the two lists, frame offsets
    // given for the output.
    void pointChannelsAtLists(const AudioBufferList& input, AudioBufferList& output,
                              std::size_t outputFrameOffset);
    void pointChannelsAtBuffers(const std::uint8_t* input, std::uint8_t* output);
    // Converts frames of channels channels from the channel tables.
    void convertChannels(std::uint32_t channels, std::size_t frames, bool overlapping);
    bool convertNativeFloat(std::uint32_t channels, std::size_t frames);
    bool convertFloatPair(bool outputIsFloat, bool inputIsFloat, std::size_t frames);
    void convertThroughScratch(std::uint32_t channels, std::size_t frames);
    void prepareInputList();
    OSStatus checkPulledList(std::uint32_t packets) const;

    Side input_;
    Side output_;
    std::uint32_t channels_;
    // The channel tables: the first sample of each channel and the bytes from
    // one frame to the next.
    std::vector<const std::uint8_t*> inputChannels_;
    std::vector<std::uint8_t*> outputChannels_;
    std::ptrdiff_t inputStride_ = 0;
    std::ptrdiff_t outputStride_ = 0;
    // Frames in 64-bit floats, channel after channel within a frame, for the
    // pairs of formats that neither side's float path covers.
    std::vector<double> scratch_;
    // The list handed to the pull function of fillComplexBuffer.
    std::unique_ptr<AudioBufferList, ListDeleter> inputList_;
    std::atomic<std::uint32_t> quality_{kAudioConverterQuality_Medium};
    std::atomic<std::uint32_t> ditherType_{0};
    std::atomic<std::uint32_t> ditherBitDepth_{0};
};
