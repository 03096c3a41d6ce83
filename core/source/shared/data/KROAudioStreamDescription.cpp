#include "KROAudioStreamDescription.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <functional>
#include <utility>

#include "KROError.h"

namespace {

constexpr AudioStreamBasicDescription defaultRecord() {
    return AudioStreamBasicDescription{44100.0,
                                       kAudioFormatLinearPCM,
                                       kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked |
                                           kAudioFormatFlagIsNonInterleaved,
                                       4,
                                       1,
                                       4,
                                       1,
                                       32,
                                       0};
}

bool isNonInterleaved(const AudioStreamBasicDescription& record) {
    return (record.mFormatFlags & kAudioFormatFlagIsNonInterleaved) != 0;
}

// The channels that share one buffer: all of them when interleaved, else one.
std::uint32_t channelsPerBuffer(const AudioStreamBasicDescription& record) {
    return isNonInterleaved(record) ? 1 : record.mChannelsPerFrame;
}

// Linear PCM: whole-byte containers, rounded up here because complete fills
// what a converter needs (unlike refresh, which drops the remainder).
OSStatus completeLinearPCM(AudioStreamBasicDescription& record) {
    const std::uint32_t bits = record.mBitsPerChannel;
    const bool isFloat = (record.mFormatFlags & kAudioFormatFlagIsFloat) != 0;
    if (record.mChannelsPerFrame == 0 || bits == 0 || bits > 64 ||
        (isFloat && bits != 32 && bits != 64)) {
        return kAudioFormatUnsupportedDataFormatError;
    }
    if (record.mFramesPerPacket == 0) {
        record.mFramesPerPacket = 1;
    }
    if (record.mBytesPerFrame == 0) {
        record.mBytesPerFrame = (bits + 7) / 8 * channelsPerBuffer(record);
    }
    if (record.mBytesPerPacket == 0) {
        record.mBytesPerPacket = record.mBytesPerFrame * record.mFramesPerPacket;
    }
    return noErr;
}

// The fixed packet shape of a compressed or companded format. A byte count
// per channel of 0 means packets of variable size.
struct PacketShape {
    AudioFormatID format;
    std::uint32_t framesPerPacket;
    std::uint32_t bytesPerPacketPerChannel;
    std::uint32_t bitsPerChannel;
};

// The formats complete() can fill: the companded formats of the converter and
// the compressed formats that the file handlers meet.
constexpr std::array<PacketShape, 14> packetShapes{{
    {kAudioFormatULaw, 1, 1, 8},
    {kAudioFormatALaw, 1, 1, 8},
    {kAudioFormatAppleIMA4, 64, 34, 0},
    {kAudioFormatMACE3, 6, 2, 0},
    {kAudioFormatMACE6, 6, 1, 0},
    {kAudioFormatMPEGLayer1, 384, 0, 0},
    {kAudioFormatMPEGLayer2, 1152, 0, 0},
    {kAudioFormatMPEGLayer3, 1152, 0, 0},
    {kAudioFormatMPEG4AAC, 1024, 0, 0},
    {kAudioFormatMPEG4AAC_HE, 2048, 0, 0},
    {kAudioFormatMPEG4AAC_HE_V2, 2048, 0, 0},
    {kAudioFormatAppleLossless, 4096, 0, 0},
    {kAudioFormatAC3, 1536, 0, 0},
    {kAudioFormat60958AC3, 1536, 0, 0},
}};

OSStatus completePacketShape(const PacketShape& shape, AudioStreamBasicDescription& record) {
    const bool fixedSize = shape.bytesPerPacketPerChannel != 0;
    if (fixedSize && record.mChannelsPerFrame == 0) {
        return kAudioFormatUnsupportedDataFormatError;
    }
    const std::uint32_t bytesPerPacket = shape.bytesPerPacketPerChannel * channelsPerBuffer(record);
    record.mFramesPerPacket = shape.framesPerPacket;
    record.mBytesPerPacket = bytesPerPacket;
    // Only a format of one frame per packet has a byte count per frame.
    record.mBytesPerFrame = shape.framesPerPacket == 1 ? bytesPerPacket : 0;
    record.mBitsPerChannel = shape.bitsPerChannel;
    return noErr;
}

// The Linux form of AudioFormatGetProperty('fmti') on one record, in and out.
OSStatus audioFormatGetFormatInfo(AudioStreamBasicDescription& record) {
    if (record.mFormatID == kAudioFormatLinearPCM) {
        return completeLinearPCM(record);
    }
    for (const PacketShape& shape : packetShapes) {
        if (shape.format == record.mFormatID) {
            return completePacketShape(shape, record);
        }
    }
    return kAudioFormatUnsupportedDataFormatError;
}

struct FormatName {
    AudioFormatID format;
    const char* name;
};

// The display names of formatName().
constexpr std::array<FormatName, 29> formatNames{{
    {kAudioFormatMPEGLayer1, "MPEG-1/2, Layer 1"},
    {kAudioFormatMPEGLayer2, "MPEG-1/2, Layer 2"},
    {kAudioFormatMPEGLayer3, "MPEG-1/2, Layer 3"},
    {kAudioFormatAudible, "Audible Book"},
    {kAudioFormatMACE3, "MACE 3:1"},
    {kAudioFormatMACE6, "MACE 6:1"},
    {kAudioFormatQDesign2, "QDesign2 music"},
    {kAudioFormatQDesign, "QDesign music"},
    {kAudioFormatQUALCOMM, "QUALCOMM PureVoice"},
    {kAudioFormatMPEG4AAC, "AAC"},
    {kAudioFormatMPEG4AAC_HE, "MPEG-4 High Efficiency AAC"},
    {kAudioFormatMPEG4AAC_LD, "MPEG-4 AAC Low Delay"},
    {kAudioFormatMPEG4AAC_HE_V2, "MPEG-4 High Efficiency AAC Version 2"},
    {kAudioFormatMPEG4AAC_Spatial, "MPEG-4 Spatial"},
    {kAudioFormatAC3, "AC-3"},
    {kAudioFormatAES3, "AES3-2003"},
    {kAudioFormatAppleLossless, "Apple Lossless"},
    {kAudioFormatALaw, "aLaw"},
    {kAudioFormat60958AC3, "AC-3"},
    {kAudioFormatMPEG4CELP, "MPEG-4 CELP"},
    {kAudioFormatMPEG4HVXC, "MPEG-4 HVXC"},
    {kAudioFormatiLBC, "iLBC"},
    {kAudioFormatAppleIMA4, "IMA 4:1 ADPCM"},
    {kAudioFormatLinearPCM, "Linear PCM"},
    {kAudioFormatDVIIntelIMA, "DVI/Intel IMA ADPCM - ACM code 17"},
    {kAudioFormatMicrosoftGSM, "Microsoft GSM 6.10 - ACM code 49"},
    {kAudioFormatAMR, "AMR Narrow Band"},
    {kAudioFormatMPEG4TwinVQ, "MPEG-4 TwinVQ"},
    {kAudioFormatULaw, "\xC2\xB5Law"},
}};

std::string fourCharacterText(std::uint32_t code) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const auto character = static_cast<char>((code >> shift) & 0xFF);
        text += (character >= 0x20 && character < 0x7F) ? character : '?';
    }
    return text;
}

} // namespace

KROAudioStreamDescription::KROAudioStreamDescription() : record_(defaultRecord()) {}

KROAudioStreamDescription& KROAudioStreamDescription::init() {
    record_ = defaultRecord();
    return *this;
}

KROAudioStreamDescription&
KROAudioStreamDescription::initWithSampleRate(double sampleRate, std::uint64_t numberOfChannels) {
    init();
    setSampleRate(sampleRate);
    setNumberOfChannels(numberOfChannels);
    return *this;
}

KROAudioStreamDescription&
KROAudioStreamDescription::initWithBasicDescription(const AudioStreamBasicDescription& record) {
    init();
    record_ = record;
    return *this;
}

std::shared_ptr<KROAudioStreamDescription> KROAudioStreamDescription::defaultDescription() {
    return std::make_shared<KROAudioStreamDescription>();
}

std::shared_ptr<KROAudioStreamDescription>
KROAudioStreamDescription::descriptionWithSampleRate(double sampleRate,
                                                     std::uint64_t numberOfChannels) {
    auto object = std::make_shared<KROAudioStreamDescription>();
    object->initWithSampleRate(sampleRate, numberOfChannels);
    return object;
}

std::shared_ptr<KROAudioStreamDescription>
KROAudioStreamDescription::descriptionWithBasicDescription(
    const AudioStreamBasicDescription& record) {
    auto object = std::make_shared<KROAudioStreamDescription>();
    object->initWithBasicDescription(record);
    return object;
}

std::shared_ptr<KROAudioStreamDescription> KROAudioStreamDescription::copy() const {
    return descriptionWithBasicDescription(record_);
}

void KROAudioStreamDescription::clear() {
    record_ = AudioStreamBasicDescription{};
}

// The remainder of bits / 8 is dropped on purpose, not rounded up: 12-bit audio
// has 1 byte per channel here, and callers that want 16-bit containers set them
// themselves.
void KROAudioStreamDescription::refresh() {
    if (record_.mFormatID != kAudioFormatLinearPCM) {
        return;
    }
    std::uint32_t bytes = record_.mBitsPerChannel / 8;
    if (!isNonInterleaved(record_)) {
        bytes *= record_.mChannelsPerFrame;
    }
    record_.mBytesPerPacket = bytes;
    record_.mBytesPerFrame = bytes;
}

bool KROAudioStreamDescription::isEqual(const KROObject& other) const {
    const auto* description = dynamic_cast<const KROAudioStreamDescription*>(&other);
    return description != nullptr && isEqualToDescription(*description);
}

bool KROAudioStreamDescription::isEqualToDescription(const KROAudioStreamDescription& other) const {
    const AudioStreamBasicDescription& a = record_;
    const AudioStreamBasicDescription& b = other.record_;
    return a.mSampleRate == b.mSampleRate && a.mFormatID == b.mFormatID &&
           a.mFormatFlags == b.mFormatFlags && a.mBytesPerPacket == b.mBytesPerPacket &&
           a.mFramesPerPacket == b.mFramesPerPacket && a.mBytesPerFrame == b.mBytesPerFrame &&
           a.mChannelsPerFrame == b.mChannelsPerFrame && a.mBitsPerChannel == b.mBitsPerChannel;
}

std::size_t KROAudioStreamDescription::hash() const {
    // The fields that isEqualToDescription compares; 0.0 and -0.0 are equal
    // and must hash alike.
    std::size_t value = std::hash<double>{}(record_.mSampleRate == 0.0 ? 0.0 : record_.mSampleRate);
    for (std::uint32_t field : {record_.mFormatID, record_.mFormatFlags, record_.mBytesPerPacket,
                                record_.mFramesPerPacket, record_.mBytesPerFrame,
                                record_.mChannelsPerFrame, record_.mBitsPerChannel}) {
        value = value * 31 + field;
    }
    return value;
}

std::string KROAudioStreamDescription::description() const {
    char text[256];
    std::snprintf(text, sizeof text,
                  "%s: '%s' (%s), %g Hz, %u channels, %u bits, flags 0x%x, "
                  "%u bytes per packet, %u frames per packet, %u bytes per frame",
                  className().c_str(), fourCharacterText(record_.mFormatID).c_str(),
                  formatName().c_str(), record_.mSampleRate, record_.mChannelsPerFrame,
                  record_.mBitsPerChannel, record_.mFormatFlags, record_.mBytesPerPacket,
                  record_.mFramesPerPacket, record_.mBytesPerFrame);
    return text;
}

void KROAudioStreamDescription::setFormat(AudioFormatID format) {
    record_.mFormatID = format;
    refresh();
}

void KROAudioStreamDescription::setNumberOfChannels(std::uint64_t numberOfChannels) {
    record_.mChannelsPerFrame = static_cast<std::uint32_t>(numberOfChannels);
    refresh();
}

void KROAudioStreamDescription::setBitDepth(std::uint64_t bitDepth) {
    record_.mBitsPerChannel = static_cast<std::uint32_t>(bitDepth);
    refresh();
}

void KROAudioStreamDescription::setFlags(AudioFormatFlags flags) {
    record_.mFormatFlags = flags;
    refresh();
}

// The service works on a copy, as the platform's does with its in-out record,
// and the result is kept whatever the status: on failure the record stays as
// the service left it, which here is unchanged.
void KROAudioStreamDescription::complete() {
    AudioStreamBasicDescription record = record_;
    const OSStatus status = audioFormatGetFormatInfo(record);
    record_ = record;
    if (status != noErr) {
        KROAudioStreamDescriptionError::errorWithCode(
            status, KROLocalizedString("KROAudioStreamDescription_action_completing"))
            ->alert();
    }
}

std::string KROAudioStreamDescription::formatName() const {
    for (const FormatName& entry : formatNames) {
        if (entry.format == record_.mFormatID) {
            return entry.name;
        }
    }
    return "unknown";
}
