// The base of every audio file format handler, and the registry that picks
// one. A handler reads a file into a description (rate, channels, depth,
// frames), labels and metadata, hands out audio by frame position as
// non-interleaved floats, and writes a file in three steps. Writing never
// touches the file a caller means to replace: beginWrite creates a hidden
// file beside it, and the caller moves the finished file into place.
//
// Reading: KROAudioFileContent::fileContentClassAtURL, makeContent, setURL,
// parse, then getAudio from any disk thread (two at once is allowed: the
// read lock guards the reader's position). Writing: fileContentClassForFormat,
// makeContent, the setters, labels and metadata, beginWrite, writeAudio for
// each block, endWrite, then move URL() to its final name (or, after a
// failure, endWrite and delete URL()). An instance reads or writes, never
// both, and is used by one thread at a time apart from getAudio.
//
// A handler of bytes builds on the protected part: openFileReader and a
// chunk list in parse; getLinearAudio for getAudio; beginLinearWrite,
// writeLinearAudio and closeFileWriter for the write steps. What it adds is
// its layout: which chunks it walks and writes, and how it patches sizes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "KROAudioBufferList.h"
#include "KROAudioConverter.h"
#include "KROAudioFileContentClass.h"
#include "KROAudioLabel.h"
#include "KROFileReader.h"
#include "KROFileWriter.h"
#include "KROPropertyList.h"

class KROAudioFileChunk;

class KROAudioFileContent : public KROObject {
    KRO_DECLARE_CLASS(KROAudioFileContent)

public:
    using Labels = std::vector<std::shared_ptr<KROAudioLabel>>;

    // Empty labels and metadata, everything else zero.
    KROAudioFileContent() = default;
    KROAudioFileContent(const KROAudioFileContent&) = delete;
    KROAudioFileContent& operator=(const KROAudioFileContent&) = delete;

    // ---- The class side
    //
    // What each handler class answers about itself. C++ has no virtual
    // static functions, so these are virtual members that look at nothing of
    // the instance; the registry asks them of a fresh instance through
    // KROAudioFileContentClass. The base class answers empty and false.

    // The format name by which writers ask for the handler ("WAVE File").
    virtual std::string format() const;
    // The usual file extension, without a dot.
    virtual std::string extension() const;
    // Whether the handler recognises the file. Never fails, whatever the file.
    virtual bool supportsURL(const std::filesystem::path& url) const;

    // The handler class names in the order in which they are asked. A name
    // with no class behind it is passed over, so that a later build adds a
    // handler by name alone. The order decides which of two handlers that
    // would both take a file gets it: headerless VOX and the directories of
    // DDP come last for that reason.
    static const std::vector<std::string>& handlerClassNames();
    // The classes of handlerClassNames that are registered as handlers,
    // resolved through the class registry on each call, so that a handler
    // registered later takes its place.
    static std::vector<KROAudioFileContentClass> fileContentClasses();
    // The first class whose supportsURL answers true. With no taker, fails
    // with KROAudioFileContentError code 3 and the file's full path.
    static std::optional<KROAudioFileContentClass>
    fileContentClassAtURL(const std::filesystem::path& url, KROErrorPtr* error = nullptr);
    // The first class whose format equals the name, or none; an empty name
    // finds none.
    static std::optional<KROAudioFileContentClass>
    fileContentClassForFormat(std::string_view format);

    // ---- Reading and writing; the base class answers false to each

    // Opens URL and fills the description, labels and metadata. After a
    // failure the instance is unusable.
    virtual bool parse(KROErrorPtr* error = nullptr);
    // Fills the buffer from that frame on, as many frames as it holds and
    // the file has left, and sets its frame count to that.
    virtual bool getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                          KROErrorPtr* error = nullptr);
    // Creates the hidden file and writes all that precedes the samples:
    // labels and metadata must be in place before. Keys written to the file
    // may be removed from metadata.
    virtual bool beginWrite(KROErrorPtr* error = nullptr);
    // Appends the buffer's frames.
    virtual bool writeAudio(const KROAudioBufferList& buffer, KROErrorPtr* error = nullptr);
    // Pads, patches sizes and closes the file; it stays at URL.
    virtual bool endWrite(KROErrorPtr* error = nullptr);

    // Sets a value by key, as writers pass handler settings. The base class
    // knows encoding, sampleRate, bitDepth, numberOfChannels,
    // isFloatingPoint, audioDataByteOrder, bitrate, quality and
    // writingDirectory; a handler adds its own keys and passes the rest on.
    // False for a key it does not know or a value of the wrong kind.
    virtual bool setValue(const KROPropertyList& value, std::string_view key);

    // ---- The description

    // The file being read; while writing, the hidden file being written.
    const std::filesystem::path& URL() const { return URL_; }
    void setURL(std::filesystem::path url) { URL_ = std::move(url); }
    // The size of the file in bytes, set by parse.
    std::uint64_t fileSize() const { return fileSize_; }
    // The sample encoding: 'lpcm', 'ulaw', 'alaw' or a compressed code.
    std::uint32_t encoding() const { return encoding_; }
    void setEncoding(std::uint32_t encoding) { encoding_ = encoding; }
    std::uint64_t numberOfChannels() const { return numberOfChannels_; }
    void setNumberOfChannels(std::uint64_t channels) { numberOfChannels_ = channels; }
    // The length in frames; grows with each writeAudio.
    std::uint64_t frames() const { return frames_; }
    std::uint64_t bitDepth() const { return bitDepth_; }
    void setBitDepth(std::uint64_t bitDepth) { bitDepth_ = bitDepth; }
    double sampleRate() const { return sampleRate_; }
    void setSampleRate(double sampleRate) { sampleRate_ = sampleRate; }
    bool isFloatingPoint() const { return isFloatingPoint_; }
    void setIsFloatingPoint(bool isFloatingPoint) { isFloatingPoint_ = isFloatingPoint; }
    // 1 little-endian, 2 big-endian, as a chunk's byteOrder.
    std::int32_t audioDataByteOrder() const { return audioDataByteOrder_; }
    void setAudioDataByteOrder(std::int32_t byteOrder) { audioDataByteOrder_ = byteOrder; }
    // Bits per second; channels times depth times rate for uncompressed data.
    std::uint64_t bitrate() const { return bitrate_; }
    void setBitrate(std::uint64_t bitrate) { bitrate_ = bitrate; }
    // Markers, regions and the like, in seconds.
    Labels& labels() { return labels_; }
    const Labels& labels() const { return labels_; }
    // A dictionary of the standard metadata keys and whatever else a format carries.
    KROPropertyList& metadata() { return metadata_; }
    const KROPropertyList& metadata() const { return metadata_; }
    // Where the hidden file is written; empty means the system's temporary directory.
    const std::filesystem::path& writingDirectory() const { return writingDirectory_; }
    void setWritingDirectory(std::filesystem::path directory) {
        writingDirectory_ = std::move(directory);
    }
    // The encoder's quality, for compressed formats.
    float quality() const { return quality_; }
    void setQuality(float quality) { quality_ = quality; }

    // ---- ID3v2 and APE tags
    //
    // Handlers call these for an 'ID3 ' chunk or a tag at a file's start or
    // end. Which frame or item means which metadata key is not in code: it
    // comes from the metadata table (KROAudioMetadataTable), read afresh by
    // each call. Nothing here reports a failure: a tag that cannot be read
    // leaves metadata as far as it got. The readers run inside parse, on a
    // reader not yet shared.

    // The 28-bit value of a synchsafe integer, given as its four bytes were
    // read from the file in host order.
    static std::uint32_t decodedID3TagSynchsafeValue(std::uint32_t value);
    // The synchsafe form of a 28-bit value as an integer: seven bits to each
    // byte, top bits zero, so 0x0FFFFFFF gives 0x7F7F7F7F.
    static std::uint32_t encodedID3TagSynchsafeValue(std::uint32_t value);
    // A genre given by number, such as "(17)" (digits, parentheses and zero
    // characters only), as its name in the resource ID3Genres. Any other
    // text, and a number past the list, comes back as it stands.
    static std::string genreStringForID3GenreNumber(std::string_view genre);

    // Reads the ID3v2.2, 2.3 or 2.4 tag at that position into metadata.
    // Anything but "ID3" there does nothing; another version is logged as
    // "found ID3v2%c header" and not read.
    void parseID3TagInFile(KROFileReader& reader, std::uint64_t position);
    // The frame walks of the three versions, from the tag header at position.
    void parseID3v22Tag(KROFileReader& reader, std::uint64_t position);
    void parseID3v23Tag(KROFileReader& reader, std::uint64_t position);
    void parseID3v24Tag(KROFileReader& reader, std::uint64_t position);
    // Some table entry with an id3v24 name has its key in metadata.
    bool hasID3Metadata() const;
    // Appends an ID3v2.4 tag of the metadata that the table names for
    // id3v24. The tag's size goes out in the chunk's byte order.
    void appendID3ToChunk(KROAudioFileChunk& chunk) const;
    // Reads an APEv2 tag at the end of the file into metadata; fileSize must
    // be set.
    void parseAPETagInFile(KROFileReader& reader);

    // ---- iXML

    // Some table entry's ixml name (its key when the name is empty) is a key
    // of metadata, or a label is of type "sync" or "event".
    bool hasIXMLMetadata() const;
    // Appends one element for the value to content: the key in upper case as
    // the tag; strings as they are, numbers as 32-bit integers, dictionaries
    // and lists as nested elements. Lines end in a carriage return.
    static void appendIXMLValue(const KROPropertyList& value, std::string_view key,
                                std::string& content);
    // Appends the iXML document of metadata and the sync and event labels,
    // padded to an even length. The broadcast keys go into its BEXT block
    // and are removed from metadata.
    void appendIXMLToChunk(KROAudioFileChunk& chunk);
    // Reads an iXML document from the chunk into metadata and labels.
    void parseIXMLChunk(const KROAudioFileChunk& chunk);
    // Moves the dictionary's value under key to the camel-case form of key;
    // nothing for an absent key.
    static void replaceSnakeCaseKey(std::string_view key, KROPropertyList& dictionary);
    // "audio_recorder_model" gives "audioRecorderModel".
    static std::string camelCaseForSnakeCase(std::string_view snakeCase);

protected:
    // Whether the URL names an existing regular file whose first bytes are
    // the magic: how most handlers recognise their files.
    static bool fileStartsWith(const std::filesystem::path& url, std::string_view magic);
    // Up to count bytes of the regular file at the URL, from its start or,
    // with afterID3Tag, from past an ID3v2 tag that starts it (other formats
    // carry such tags at their start too; what follows decides); fewer when
    // the file is shorter, none when the URL names no regular file.
    static std::string fileHead(const std::filesystem::path& url, std::size_t count,
                                bool afterID3Tag = false);

    // ---- Failures

    // An error of the handler's own family; each handler returns its
    // <class>Error. The base class makes a KROAudioFileContentError.
    virtual KROErrorPtr errorWithCode(std::int64_t code, const std::string& action) const;
    // Fails with the handler's family, the action of the key formatted as
    // "%@ '%@'" with the file's name: how parse and the write steps report.
    bool failWithFileName(KROErrorPtr* error, std::int64_t code, std::string_view actionKey) const;
    // The codes that chunked formats share.
    enum ChunkedFormatCode : std::int64_t {
        noFormatChunk = 1,
        sampleFormatNotSupported = 2,
        noAudioChunk = 3,
        exceedsSizeLimit = 4,
        impossibleFormat = 5,
    };

    // ---- Reading

    // Opens URL without caching and takes fileSize; the reader stays open for getAudio.
    bool openFileReader(KROErrorPtr* error);
    void setFrames(std::uint64_t frames) { frames_ = frames; }
    void setFileSize(std::uint64_t fileSize) { fileSize_ = fileSize; }
    // The format flags of the samples in the file: float (1), big-endian (2),
    // signed integer (4). The base class: float for floats, signed for
    // integers wider than 8 bits (8-bit data is unsigned in most formats),
    // big-endian when audioDataByteOrder is 2. A handler whose format says
    // otherwise overrides it.
    virtual AudioFormatFlags audioDataFormatFlags() const;
    // The flags of formats whose integers are signed at every depth, 8 bits
    // included (AIFF, AU): signed, plus float and big-endian as the base has them.
    AudioFormatFlags signedAudioDataFormatFlags() const;
    // The interleaved samples of the file as a stream description.
    std::shared_ptr<KROAudioStreamDescription> audioDataDescription() const;
    // The checks every getAudio starts with. The buffer must have
    // numberOfChannels channels (else KROAudioFileContentError code 1). A
    // buffer of 0 frames has nothing to read; from frames on, the buffer is
    // silent with its count left as it was, and nothing is read either.
    // Otherwise the buffer is cut to the frames the file still has. Sets
    // *count to the frames to read, 0 when there are none.
    bool prepareGetAudio(KROAudioBufferList& buffer, std::uint64_t frame, std::uint64_t* count,
                         KROErrorPtr* error);
    // getAudio of a handler whose samples are a block of fixed-size frames
    // at audioDataPosition, after prepareGetAudio. A file that ends early
    // reads as silence where it has no bytes.
    bool getLinearAudio(KROAudioBufferList& buffer, std::uint64_t frame, KROErrorPtr* error);
    // One channel of 32-bit floats in the host's byte order: the file's bytes
    // are the buffer's samples as they are.
    bool holdsWorkingSamples() const;

    // ---- Writing

    // The first steps of beginWrite for a handler of bytes: the converter
    // from floats to the file's samples, then the hidden file beside the
    // target, open in fileWriter_. The handler then writes its header.
    bool beginLinearWrite(KROErrorPtr* error);
    // The converter from floats to the file's samples, in converter_.
    bool makeConverterForWriting(KROErrorPtr* error);
    // A new hidden name in writingDirectory when the process may write
    // there, else in the temporary directory.
    std::filesystem::path newWritingURL() const;
    // Creates a file named by a dot and a new UUID in writingDirectory when
    // the process may write there, else in the temporary directory, sets it
    // as URL and opens fileWriter_ on it.
    bool createWritingFile(KROErrorPtr* error);
    // The most sample bytes a file of the format can hold: 2^32 - 1 by
    // default, for 32-bit chunk sizes. Formats with 64-bit sizes raise it.
    virtual std::uint64_t maximumAudioDataLength() const;
    // writeAudio of a handler of bytes: converts the buffer and appends it.
    // frames grows first; when the sample bytes would pass
    // maximumAudioDataLength the call fails with exceedsSizeLimit and writes
    // nothing.
    bool writeLinearAudio(const KROAudioBufferList& buffer, KROErrorPtr* error);
    // The bytes of audio written so far.
    std::uint64_t audioDataLengthOfFrames(std::uint64_t frames) const;
    // Closes the file, which stays at URL.
    void closeFileWriter() { fileWriter_.reset(); }

    // ---- Labels and metadata

    // Adds the "region" labels of a 'regn' chunk (a 64-bit count, then
    // records of 88 bytes: start and end frames at 12 and 20, a Pascal name
    // at 52), in the chunk's byte order. A count above the maximum gives none.
    void readRegionChunk(const KROAudioFileChunk& chunk, std::uint64_t maximumCount);

    // Seconds to frames as labels are written: rounded.
    std::int64_t framesOfSeconds(double seconds) const;
    // Whether any label has the type.
    bool hasLabelOfType(std::string_view type) const;
    bool hasAnyMetadataKey(std::span<const char* const> keys) const;

    // ---- What handlers of bytes share

    // Made on first need: for reading, from the file's samples to floats;
    // for writing, the other way.
    std::shared_ptr<KROAudioConverter> converter_;
    std::unique_ptr<KROFileReader> fileReader_;
    // Held around each seek and read of fileReader_ once parse is done.
    std::mutex readLock_;
    std::unique_ptr<KROFileWriter> fileWriter_;
    // Where the samples start and how many bytes they take.
    std::uint64_t audioDataPosition_ = 0;
    std::uint64_t audioDataLength_ = 0;
    // Where the size field of the sample chunk lies, patched by endWrite.
    std::uint64_t dataChunkSizePosition_ = 0;

private:
    bool makeConverterForReading(KROErrorPtr* error);

    std::filesystem::path URL_;
    std::uint64_t fileSize_ = 0;
    std::uint32_t encoding_ = 0;
    std::uint64_t numberOfChannels_ = 0;
    std::uint64_t frames_ = 0;
    std::uint64_t bitDepth_ = 0;
    double sampleRate_ = 0.0;
    bool isFloatingPoint_ = false;
    std::int32_t audioDataByteOrder_ = 0;
    std::uint64_t bitrate_ = 0;
    Labels labels_;
    KROPropertyList metadata_;
    std::filesystem::path writingDirectory_;
    float quality_ = 0.0f;
};
