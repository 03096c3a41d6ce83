// The platform's AudioStreamBasicDescription record and the constants that go
// with it, declared here because the platform's headers are absent on Linux.
// Names and values are the platform's, so code written against them reads the
// same on both.
#pragma once

#include <cstdint>

using OSStatus = std::int32_t;
using AudioFormatID = std::uint32_t;
using AudioFormatFlags = std::uint32_t;

// A four-character code from its text, highest byte first: KROFourCharCode("lpcm").
constexpr std::uint32_t KROFourCharCode(const char (&text)[5]) {
    return (std::uint32_t(std::uint8_t(text[0])) << 24) |
           (std::uint32_t(std::uint8_t(text[1])) << 16) |
           (std::uint32_t(std::uint8_t(text[2])) << 8) | std::uint32_t(std::uint8_t(text[3]));
}

// The nine fields, in the platform's order and widths.
struct AudioStreamBasicDescription {
    double mSampleRate;
    AudioFormatID mFormatID;
    AudioFormatFlags mFormatFlags;
    std::uint32_t mBytesPerPacket;
    std::uint32_t mFramesPerPacket;
    std::uint32_t mBytesPerFrame;
    std::uint32_t mChannelsPerFrame;
    std::uint32_t mBitsPerChannel;
    std::uint32_t mReserved;
};

// One packet of a variable-size format, as the pull function of a converter
// may describe it.
struct AudioStreamPacketDescription {
    std::int64_t mStartOffset;
    std::uint32_t mVariableFramesInPacket;
    std::uint32_t mDataByteSize;
};

// Status values shared by the platform's audio services.
inline constexpr OSStatus noErr = 0;
inline constexpr OSStatus kAudio_ParamError = -50;
inline constexpr OSStatus kAudio_MemFullError = -108;

// Format identifiers ('lpcm' …).
inline constexpr AudioFormatID kAudioFormatLinearPCM = KROFourCharCode("lpcm");
inline constexpr AudioFormatID kAudioFormatAC3 = KROFourCharCode("ac-3");
inline constexpr AudioFormatID kAudioFormat60958AC3 = KROFourCharCode("cac3");
inline constexpr AudioFormatID kAudioFormatAppleIMA4 = KROFourCharCode("ima4");
inline constexpr AudioFormatID kAudioFormatMPEG4AAC = KROFourCharCode("aac ");
inline constexpr AudioFormatID kAudioFormatMPEG4CELP = KROFourCharCode("celp");
inline constexpr AudioFormatID kAudioFormatMPEG4HVXC = KROFourCharCode("hvxc");
inline constexpr AudioFormatID kAudioFormatMPEG4TwinVQ = KROFourCharCode("twvq");
inline constexpr AudioFormatID kAudioFormatMACE3 = KROFourCharCode("MAC3");
inline constexpr AudioFormatID kAudioFormatMACE6 = KROFourCharCode("MAC6");
inline constexpr AudioFormatID kAudioFormatULaw = KROFourCharCode("ulaw");
inline constexpr AudioFormatID kAudioFormatALaw = KROFourCharCode("alaw");
inline constexpr AudioFormatID kAudioFormatQDesign = KROFourCharCode("QDMC");
inline constexpr AudioFormatID kAudioFormatQDesign2 = KROFourCharCode("QDM2");
inline constexpr AudioFormatID kAudioFormatQUALCOMM = KROFourCharCode("Qclp");
inline constexpr AudioFormatID kAudioFormatMPEGLayer1 = KROFourCharCode(".mp1");
inline constexpr AudioFormatID kAudioFormatMPEGLayer2 = KROFourCharCode(".mp2");
inline constexpr AudioFormatID kAudioFormatMPEGLayer3 = KROFourCharCode(".mp3");
inline constexpr AudioFormatID kAudioFormatAudible = KROFourCharCode("AUDB");
inline constexpr AudioFormatID kAudioFormatAES3 = KROFourCharCode("aes3");
inline constexpr AudioFormatID kAudioFormatAppleLossless = KROFourCharCode("alac");
inline constexpr AudioFormatID kAudioFormatMPEG4AAC_HE = KROFourCharCode("aach");
inline constexpr AudioFormatID kAudioFormatMPEG4AAC_LD = KROFourCharCode("aacl");
inline constexpr AudioFormatID kAudioFormatMPEG4AAC_HE_V2 = KROFourCharCode("aacp");
inline constexpr AudioFormatID kAudioFormatMPEG4AAC_Spatial = KROFourCharCode("aacs");
inline constexpr AudioFormatID kAudioFormatAMR = KROFourCharCode("samr");
inline constexpr AudioFormatID kAudioFormatiLBC = KROFourCharCode("ilbc");
inline constexpr AudioFormatID kAudioFormatDVIIntelIMA = 0x6D730011;
inline constexpr AudioFormatID kAudioFormatMicrosoftGSM = 0x6D730031;

// Format flags. KROAudioStreamDescription reads only the non-interleaved flag;
// the converter honours the others.
inline constexpr AudioFormatFlags kAudioFormatFlagIsFloat = 1U << 0;
inline constexpr AudioFormatFlags kAudioFormatFlagIsBigEndian = 1U << 1;
inline constexpr AudioFormatFlags kAudioFormatFlagIsSignedInteger = 1U << 2;
inline constexpr AudioFormatFlags kAudioFormatFlagIsPacked = 1U << 3;
inline constexpr AudioFormatFlags kAudioFormatFlagIsAlignedHigh = 1U << 4;
inline constexpr AudioFormatFlags kAudioFormatFlagIsNonInterleaved = 1U << 5;
inline constexpr AudioFormatFlags kAudioFormatFlagIsNonMixable = 1U << 6;
inline constexpr AudioFormatFlags kAudioFormatFlagsAreAllClear = 0x80000000U;

inline constexpr AudioFormatFlags kLinearPCMFormatFlagIsFloat = kAudioFormatFlagIsFloat;
inline constexpr AudioFormatFlags kLinearPCMFormatFlagIsBigEndian = kAudioFormatFlagIsBigEndian;
inline constexpr AudioFormatFlags kLinearPCMFormatFlagIsSignedInteger =
    kAudioFormatFlagIsSignedInteger;
inline constexpr AudioFormatFlags kLinearPCMFormatFlagIsPacked = kAudioFormatFlagIsPacked;
inline constexpr AudioFormatFlags kLinearPCMFormatFlagIsAlignedHigh = kAudioFormatFlagIsAlignedHigh;
inline constexpr AudioFormatFlags kLinearPCMFormatFlagIsNonInterleaved =
    kAudioFormatFlagIsNonInterleaved;
inline constexpr AudioFormatFlags kLinearPCMFormatFlagIsNonMixable = kAudioFormatFlagIsNonMixable;
inline constexpr AudioFormatFlags kLinearPCMFormatFlagsAreAllClear = kAudioFormatFlagsAreAllClear;

// Linux on the machines we build for is little-endian.
inline constexpr AudioFormatFlags kAudioFormatFlagsNativeEndian = 0;
inline constexpr AudioFormatFlags kAudioFormatFlagsNativeFloatPacked =
    kAudioFormatFlagIsFloat | kAudioFormatFlagsNativeEndian | kAudioFormatFlagIsPacked;

// The platform's audio format service ('fmti' and its statuses), as far as
// KROAudioStreamDescription::complete uses it.
inline constexpr std::uint32_t kAudioFormatProperty_FormatInfo = KROFourCharCode("fmti");

inline constexpr OSStatus kAudioFormatUnspecifiedError =
    static_cast<OSStatus>(KROFourCharCode("what"));
inline constexpr OSStatus kAudioFormatUnsupportedPropertyError =
    static_cast<OSStatus>(KROFourCharCode("prop"));
inline constexpr OSStatus kAudioFormatBadPropertySizeError =
    static_cast<OSStatus>(KROFourCharCode("!siz"));
inline constexpr OSStatus kAudioFormatBadSpecifierSizeError =
    static_cast<OSStatus>(KROFourCharCode("!spc"));
inline constexpr OSStatus kAudioFormatUnsupportedDataFormatError =
    static_cast<OSStatus>(KROFourCharCode("fmt?"));
inline constexpr OSStatus kAudioFormatUnknownFormatError =
    static_cast<OSStatus>(KROFourCharCode("!fmt"));
