// The handler of disc master images: a directory, not a file, holding the
// samples (16-bit stereo at 44100 Hz, no header) in "image.dat" and the
// fixed-width, space-padded ASCII files that describe them: the
// identification "DDPID", the map of streams "DDPMS", the subcode entries
// "PQ_DESCR" and, optionally, the CD-TEXT packs "CDTEXT.BIN" and MD5 files.
//
// Tracks and indexes become "track" and "index" labels, times relative to
// the first track (which a player starts 2 s into the disc). Reading keeps
// two quirks that images already in circulation depend on: the master
// identifier is read from eight bytes before where it is written, and the
// user text written from "ddpUserText" comes back as "userText".
//
// Failures of parse: DDPID not 128 bytes (1), DDPMS not whole entries of 128
// (2), PQ_DESCR not whole entries of 64 (3), a file whose size differs from
// its map entry (4), a file named in the map that is missing, or no audio
// stream at all (5). beginWrite refuses an "isrc" that is not 12 characters
// (6).
#pragma once

#include <cstdint>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KROAudioFileContent.h"

class KROAudioFileDDPContent : public KROAudioFileContent {
    KRO_DECLARE_CLASS(KROAudioFileDDPContent)

public:
    // The track number that stands for the lead-out ("AA").
    static constexpr std::int64_t leadOutTrack = std::numeric_limits<std::int64_t>::max();

    // 16-bit little-endian stereo at 44100 Hz, on reading and on writing.
    KROAudioFileDDPContent();

    std::string format() const override;
    // An existing directory with an entry named "ddpid" or "ddpms", in any
    // case and with any extension.
    bool supportsURL(const std::filesystem::path& url) const override;

    bool parse(KROErrorPtr* error = nullptr) override;
    bool getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                  KROErrorPtr* error = nullptr) override;
    // Creates the hidden directory and its "image.dat".
    bool beginWrite(KROErrorPtr* error = nullptr) override;
    bool writeAudio(const KROAudioBufferList& buffer, KROErrorPtr* error = nullptr) override;
    // Pads the samples to a whole sector and writes the descriptive files
    // and digests; URL then names the finished directory.
    bool endWrite(KROErrorPtr* error = nullptr) override;
    // Adds "includeCDTEXT" (a boolean) and "md5Method" (a string).
    bool setValue(const KROPropertyList& value, std::string_view key) override;

    // The entry of the directory at URL whose name equals name in lower
    // case, or none.
    std::optional<std::filesystem::path> URLForFilename(std::string_view name) const;

    // One subcode entry of 64 bytes (more for positions past 99 minutes) at
    // a position in seconds. label gives "scms", "isrc" and "userText"; with
    // no label, track 0 takes its ISRC from metadata.
    std::string pqDescriptionForPosition(double position, const KROAudioLabel* label,
                                         std::int64_t trackNumber, std::int64_t indexNumber) const;
    // The CD-TEXT packs of one type: titles[0] is the album's text and
    // titles[i] track i's. start is the running sequence number; it advances
    // by the count of packs. No text at all gives no packs.
    static KROData cdTextPacksForType(unsigned type, const std::vector<std::string>& titles,
                                      std::uint64_t& start);
    // Fills bytes 16 and 17 of an 18-byte pack with its CRC, high byte first.
    static void addCRCToPack(std::uint8_t* pack);

    // Seconds and frames of audio before frame 0, from the map's audio entry.
    double pregapLength() const { return pregapLength_; }
    std::uint64_t pregapFrames() const { return pregapFrames_; }
    // Sectors of 2352 bytes in the map's audio entry.
    std::uint64_t cdFrames() const { return cdFrames_; }
    const std::filesystem::path& audioURL() const { return audioURL_; }
    void setAudioURL(std::filesystem::path url) { audioURL_ = std::move(url); }
    // Write "CDTEXT.BIN". Off by default.
    bool includeCDTEXT() const { return includeCDTEXT_; }
    void setIncludeCDTEXT(bool include) { includeCDTEXT_ = include; }
    // "audioFileOnly", "allFiles", "masterFile", or empty for no digests.
    const std::string& md5Method() const { return md5Method_; }
    void setMd5Method(std::string method) { md5Method_ = std::move(method); }

protected:
    KROErrorPtr errorWithCode(std::int64_t code, const std::string& action) const override;
    // Images hold far more than 4 GiB would allow on a disc; no limit here.
    std::uint64_t maximumAudioDataLength() const override;

private:
    // 16-bit little-endian stereo at 44100 Hz, whatever a writer set.
    void setFixedFormat();

    // ---- Reading
    bool readMap(const std::string& map, std::string& pqDescriptions, KROData& cdText,
                 KROErrorPtr* error);
    void readIdentification(const std::string& identification);
    void readPQDescriptions(const std::string& descriptions);
    // Texts of the packs onto metadata and the tracks, sorted by location.
    void readCDText(const KROData& packs,
                    const std::vector<std::shared_ptr<KROAudioLabel>>& tracks);
    bool openAudio(KROErrorPtr* error);

    // ---- Writing
    std::vector<std::shared_ptr<KROAudioLabel>> labelsOfType(std::string_view type) const;
    std::string identification() const;
    std::string pqDescriptions() const;
    KROData cdText() const;
    std::string map(std::uint64_t pqLength, std::optional<std::uint64_t> cdTextLength,
                    std::uint64_t sectors) const;
    // Writes a file of the image and its digest as md5Method asks.
    bool writeImageFile(const std::string& name, const void* bytes, std::size_t length,
                        KROErrorPtr* error);
    void recordDigest(const std::string& name);

    double pregapLength_ = 0.0;
    std::uint64_t pregapFrames_ = 0;
    std::uint64_t cdFrames_ = 0;
    std::filesystem::path audioURL_;
    bool includeCDTEXT_ = false;
    std::string md5Method_;
    // The lines of "md5.txt" while a "masterFile" image is written.
    std::string digestList_;
};
