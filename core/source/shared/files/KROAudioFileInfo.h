// What an audio file is -- format, encoding, channels, length -- read from
// its header alone, without a format handler, so that a host can list a
// folder of thousands of files quickly. The parsers here are small and
// separate from the handlers on purpose, and tolerate other things: the AIFF,
// WAVE and Wave64 walks answer true with the error set when a chunk is
// missing, leaving the object with zero values, and a Wave64 length counts
// the 24 header bytes of its 'data' chunk. Files of no format of its own it
// recognises by a fallback that reads CAF headers.
//
// An instance is built and read on one thread; it keeps no reader.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "KROError.h"
#include "KROObject.h"
#include "KROURLExtension.h"

class KROAudioFileChunk;
class KROFileReader;

class KROAudioFileInfo : public KROObject {
    KRO_DECLARE_CLASS(KROAudioFileInfo)

public:
    KROAudioFileInfo() = default;

    // Reads the file's header. Fails with KROAudioFileInfoError code 1 for a
    // file under 4 bytes or one that cannot be opened, and code 2 when no
    // parser, the fallback included, makes sense of it. A parser that
    // answers true may still leave an error, which lands in error.
    bool initWithURL(const std::filesystem::path& url, KROErrorPtr* error = nullptr);

    const std::string& displayName() const { return displayName_; }
    void setDisplayName(std::string name) { displayName_ = std::move(name); }
    const KRODate& modificationDate() const { return modificationDate_; }
    void setModificationDate(KRODate date) { modificationDate_ = date; }
    // The localized name of the format.
    const std::string& format() const { return format_; }
    // 'lpcm', 'ulaw', 'alaw' or the code of a compressed format.
    std::uint32_t encoding() const { return encoding_; }
    std::uint64_t fileSize() const { return fileSize_; }
    std::uint64_t numberOfChannels() const { return numberOfChannels_; }
    std::uint64_t frames() const { return frames_; }
    std::uint64_t bitDepth() const { return bitDepth_; }
    // Set only by the parsers of formats that state it.
    std::uint64_t bitrate() const { return bitrate_; }
    bool floatingPoint() const { return floatingPoint_; }
    double sampleRate() const { return sampleRate_; }
    // Seconds: frames divided by the rate.
    double length() const { return length_; }

    // ---- The parsers, each on a reader of the whole file
    bool parseAIFF(KROFileReader& reader, KROErrorPtr* error);
    bool parseWAVE(KROFileReader& reader, KROErrorPtr* error);
    bool parseWAV64(KROFileReader& reader, KROErrorPtr* error);
    bool parseSFIL(KROFileReader& reader, KROErrorPtr* error);
    bool parseSDII(KROFileReader& reader, KROErrorPtr* error);
    bool parseAU(KROFileReader& reader, KROErrorPtr* error);
    bool parseVOX(KROFileReader& reader, KROErrorPtr* error);
    bool parseVorbis(KROFileReader& reader, KROErrorPtr* error);
    bool parseFLAC(KROFileReader& reader, KROErrorPtr* error);
    // The fallback for formats the system's own decoders would open; here
    // it knows CAF and answers false to anything else.
    bool parseFileWithCoreAudio(const std::filesystem::path& url);

private:
    // Reads the 16 bytes of a WAVE format body; false for a tag other than
    // integer, float, mu-law and extensible.
    bool readWAVEFormat(const KROAudioFileChunk& file, std::uint64_t position, KROErrorPtr* error);
    void setFramesOfBytes(std::uint64_t bytes);

    std::string displayName_;
    KRODate modificationDate_{};
    std::string format_;
    std::uint32_t encoding_ = 0;
    std::uint64_t fileSize_ = 0;
    std::uint64_t numberOfChannels_ = 0;
    std::uint64_t frames_ = 0;
    std::uint64_t bitDepth_ = 0;
    std::uint64_t bitrate_ = 0;
    bool floatingPoint_ = false;
    double sampleRate_ = 0.0;
    double length_ = 0.0;
};
