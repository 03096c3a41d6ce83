#include "KROAudioFileFLACContent.h"

#include <FLAC/metadata.h>
#include <FLAC/stream_decoder.h>
#include <FLAC/stream_encoder.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <vector>

#include "KROAudioTextTags.h"
#include "KROClassRegistry.h"
#include "KROError.h"
#include "KROSampleConversion.h"
#include "KROStringHelpers.h"
#include "KROURLExtension.h"

KRO_REGISTER_CLASS(KROAudioFileFLACContent, KROAudioFileContent)

namespace {

enum FLACCode : std::int64_t {
    notAFLACStream = 1,
    formatNotSupported = 2,
    impossibleStreamInfo = 5,
    damagedStream = 6,
    encoderFailed = 7,
};

// Seconds between the points of the seek tables written here.
constexpr double seekPointSpacing = 10.0;
// Room left after the metadata for the seek table, cue sheet and later tags.
constexpr unsigned paddingLength = 8192;
// Blocks of the writer's conversion, in frames.
constexpr std::size_t encodeBlock = 4096;

// Integers of that many significant bits in the low bits of 32, as libFLAC
// hands them over and takes them.
KROSampleFormat flacSampleFormat(std::uint64_t bits) {
    KROSampleFormat format;
    format.coding = KROSampleCoding::signedInteger;
    format.bytes = 4;
    format.bits = static_cast<std::uint8_t>(bits);
    return format;
}

// Where the first frame of a FLAC file starts: past "fLaC" and the metadata
// blocks, the last of which has the top bit of its type set. Zero when the
// file cannot be read so far.
std::uint64_t firstFrameOffset(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::uint64_t position = 4;
    for (bool last = false; !last;) {
        unsigned char header[4];
        file.seekg(static_cast<std::streamoff>(position));
        if (!file.read(reinterpret_cast<char*>(header), 4)) {
            return 0;
        }
        last = (header[0] & 0x80) != 0;
        position +=
            4 + (std::uint64_t{header[1]} << 16 | std::uint64_t{header[2]} << 8 | header[3]);
    }
    return position;
}

} // namespace

// ---------------------------------------------------------------- decoder

struct KROAudioFileFLACContent::Decoder {
    FLAC__StreamDecoder* decoder = FLAC__stream_decoder_new();
    // From the metadata.
    bool sawStreamInfo = false;
    FLAC__StreamMetadata_StreamInfo info{};
    KROAudioTextTags::Pairs comments;
    std::vector<std::uint64_t> cuePoints;
    // The last decoded block, one run of samples per channel.
    std::vector<FLAC__int32> block;
    std::uint64_t blockStart = 0;
    std::uint64_t blockFrames = 0;
    bool hasBlock = false;

    ~Decoder() { FLAC__stream_decoder_delete(decoder); }

    static FLAC__StreamDecoderWriteStatus write(const FLAC__StreamDecoder*,
                                                const FLAC__Frame* frame,
                                                const FLAC__int32* const buffer[], void* client) {
        auto& self = *static_cast<Decoder*>(client);
        // A damaged frame may claim other channels than the stream info; the
        // block always has the stream's, silent where the frame has none.
        const unsigned channels = self.info.channels;
        const unsigned frames = frame->header.blocksize;
        self.block.assign(std::size_t{channels} * frames, 0);
        for (unsigned channel = 0; channel < std::min(channels, frame->header.channels);
             ++channel) {
            std::copy_n(buffer[channel], frames,
                        self.block.begin() + std::ptrdiff_t{channel} * frames);
        }
        self.blockStart = frame->header.number.sample_number;
        self.blockFrames = frames;
        self.hasBlock = true;
        return FLAC__STREAM_DECODER_WRITE_STATUS_CONTINUE;
    }

    static void metadata(const FLAC__StreamDecoder*, const FLAC__StreamMetadata* block,
                         void* client) {
        auto& self = *static_cast<Decoder*>(client);
        if (block->type == FLAC__METADATA_TYPE_STREAMINFO) {
            self.info = block->data.stream_info;
            self.sawStreamInfo = true;
        } else if (block->type == FLAC__METADATA_TYPE_VORBIS_COMMENT) {
            const auto& comments = block->data.vorbis_comment;
            for (FLAC__uint32 i = 0; i < comments.num_comments; ++i) {
                const FLAC__StreamMetadata_VorbisComment_Entry& entry = comments.comments[i];
                const std::string text(reinterpret_cast<const char*>(entry.entry), entry.length);
                const std::size_t equals = text.find('=');
                if (equals != std::string::npos) {
                    self.comments.emplace_back(text.substr(0, equals), text.substr(equals + 1));
                }
            }
        } else if (block->type == FLAC__METADATA_TYPE_CUESHEET) {
            const auto& sheet = block->data.cue_sheet;
            // The last track is the lead-out, which marks the end, not a place.
            for (FLAC__uint32 i = 0; i + 1 < sheet.num_tracks; ++i) {
                self.cuePoints.push_back(sheet.tracks[i].offset);
            }
        }
    }

    static void error(const FLAC__StreamDecoder*, FLAC__StreamDecoderErrorStatus, void*) {}

    // Decodes the block that holds frame into block, or the first one after
    // it when damaged frames were skipped; false when the stream has no such
    // block or cannot be decoded there.
    bool decodeBlockAt(std::uint64_t frame) {
        const bool next = hasBlock && frame == blockStart + blockFrames;
        if (next) {
            // A damaged stream may give up frames without a block; a few tries
            // get past a lost sync, more would only spin.
            for (int tries = 0; tries < 8; ++tries) {
                hasBlock = false;
                if (!FLAC__stream_decoder_process_single(decoder) ||
                    FLAC__stream_decoder_get_state(decoder) == FLAC__STREAM_DECODER_END_OF_STREAM) {
                    return false;
                }
                if (hasBlock) {
                    return frame < blockStart + blockFrames;
                }
            }
            return false;
        }
        hasBlock = false;
        if (!FLAC__stream_decoder_seek_absolute(decoder, frame)) {
            // A failed seek leaves the decoder needing a flush before it is used again.
            FLAC__stream_decoder_flush(decoder);
            return false;
        }
        return hasBlock && blockStart <= frame && frame < blockStart + blockFrames;
    }
};

// ---------------------------------------------------------------- encoder

struct KROAudioFileFLACContent::Encoder {
    FLAC__StreamEncoder* encoder = FLAC__stream_encoder_new();
    FLAC__StreamMetadata* comments = nullptr;
    FLAC__StreamMetadata* padding = nullptr;
    // The first sample and the bytes written before each frame, from
    // progress, which libFLAC reports after each frame.
    std::vector<std::pair<std::uint64_t, std::uint64_t>> frameStarts;
    std::uint64_t samplesWritten = 0;
    std::uint64_t bytesWritten = 0;
    std::vector<FLAC__int32> scratch;

    ~Encoder() {
        FLAC__stream_encoder_delete(encoder);
        if (comments) {
            FLAC__metadata_object_delete(comments);
        }
        if (padding) {
            FLAC__metadata_object_delete(padding);
        }
    }

    static void progress(const FLAC__StreamEncoder*, FLAC__uint64 bytes, FLAC__uint64 samples,
                         unsigned, unsigned, void* client) {
        auto& self = *static_cast<Encoder*>(client);
        self.frameStarts.emplace_back(self.samplesWritten, self.bytesWritten);
        self.samplesWritten = samples;
        self.bytesWritten = bytes;
    }
};

// ---------------------------------------------------------------- class side

KROAudioFileFLACContent::KROAudioFileFLACContent() {
    setEncoding(kro::fourCC("flac"));
}

KROAudioFileFLACContent::~KROAudioFileFLACContent() = default;

std::string KROAudioFileFLACContent::format() const {
    return "FLAC Audio File";
}

std::string KROAudioFileFLACContent::extension() const {
    return "flac";
}

bool KROAudioFileFLACContent::supportsURL(const std::filesystem::path& url) const {
    return fileHead(url, 4, true) == "fLaC";
}

KROErrorPtr KROAudioFileFLACContent::errorWithCode(std::int64_t code,
                                                   const std::string& action) const {
    return KROAudioFileFLACContentError::errorWithCode(code, action);
}

bool KROAudioFileFLACContent::setValue(const KROPropertyList& value, std::string_view key) {
    if (key == "compressionLevel") {
        if (!value.isNumber()) {
            return false;
        }
        compressionLevel_ = static_cast<int>(std::clamp<std::int64_t>(value.longValue(), 0, 8));
        return true;
    }
    return KROAudioFileContent::setValue(value, key);
}

// ---------------------------------------------------------------- reading

bool KROAudioFileFLACContent::parse(KROErrorPtr* error) {
    std::uint64_t size = 0;
    if (!kro::getSizeOfFile(URL(), size, error)) {
        return false;
    }
    setFileSize(size);
    decoder_ = std::make_unique<Decoder>();
    FLAC__StreamDecoder* decoder = decoder_->decoder;
    FLAC__stream_decoder_set_md5_checking(decoder, false);
    FLAC__stream_decoder_set_metadata_respond(decoder, FLAC__METADATA_TYPE_VORBIS_COMMENT);
    FLAC__stream_decoder_set_metadata_respond(decoder, FLAC__METADATA_TYPE_CUESHEET);
    if (FLAC__stream_decoder_init_file(decoder, URL().c_str(), Decoder::write, Decoder::metadata,
                                       Decoder::error,
                                       decoder_.get()) != FLAC__STREAM_DECODER_INIT_STATUS_OK ||
        !FLAC__stream_decoder_process_until_end_of_metadata(decoder) || !decoder_->sawStreamInfo) {
        return failWithFileName(error, notAFLACStream, "KROAudioFileContent_action_parsing");
    }
    const FLAC__StreamMetadata_StreamInfo& info = decoder_->info;
    if (info.bits_per_sample < 4 || info.bits_per_sample > 32) {
        return failWithFileName(error, formatNotSupported, "KROAudioFileContent_action_parsing");
    }
    if (info.sample_rate == 0 || info.channels == 0) {
        return failWithFileName(error, impossibleStreamInfo, "KROAudioFileContent_action_parsing");
    }
    setSampleRate(info.sample_rate);
    setNumberOfChannels(info.channels);
    setBitDepth(info.bits_per_sample);
    setIsFloatingPoint(false);
    setFrames(info.total_samples);
    if (info.total_samples > 0) {
        const double seconds = static_cast<double>(info.total_samples) / info.sample_rate;
        setBitrate(static_cast<std::uint64_t>(static_cast<double>(size) * 8 / seconds));
    }
    KROAudioTextTags::read("vorbis", decoder_->comments, metadata());
    for (const std::uint64_t point : decoder_->cuePoints) {
        auto label = KROAudioLabel::labelOfType("marker");
        label->setLocation(static_cast<double>(point) / sampleRate());
        labels().push_back(std::move(label));
    }
    return true;
}

bool KROAudioFileFLACContent::getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                                       KROErrorPtr* error) {
    std::uint64_t count = 0;
    if (!prepareGetAudio(buffer, frame, &count, error)) {
        return false;
    }
    if (count == 0) {
        return true;
    }
    const KROSampleFormat format = flacSampleFormat(bitDepth());
    std::lock_guard guard(readLock_);
    if (!decoder_) {
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_reading");
    }
    Decoder& decoder = *decoder_;
    for (std::uint64_t done = 0; done < count;) {
        const std::uint64_t position = frame + done;
        const bool held = decoder.hasBlock && decoder.blockStart <= position &&
                          position < decoder.blockStart + decoder.blockFrames;
        if (!held && !decoder.decodeBlockAt(position)) {
            if (FLAC__stream_decoder_get_state(decoder.decoder) ==
                FLAC__STREAM_DECODER_END_OF_STREAM) {
                // A stream shorter than its stream info says ends in silence.
                for (std::uint32_t channel = 0; channel < numberOfChannels(); ++channel) {
                    std::fill(buffer.channel(channel) + done, buffer.channel(channel) + count,
                              0.0f);
                }
                return true;
            }
            return failWithFileName(error, damagedStream, "KROAudioFileContent_action_getAudio");
        }
        if (decoder.blockStart > position) {
            // Frames lost to damage read as silence.
            const std::uint64_t gap = std::min(count - done, decoder.blockStart - position);
            for (std::uint32_t channel = 0; channel < numberOfChannels(); ++channel) {
                std::fill_n(buffer.channel(channel) + done, gap, 0.0f);
            }
            done += gap;
            continue;
        }
        const std::uint64_t offset = position - decoder.blockStart;
        const std::uint64_t take = std::min(count - done, decoder.blockFrames - offset);
        for (std::uint32_t channel = 0; channel < numberOfChannels(); ++channel) {
            const FLAC__int32* source =
                decoder.block.data() + channel * decoder.blockFrames + offset;
            KRODecodeSamples(format, source, sizeof(FLAC__int32), buffer.channel(channel) + done, 1,
                             take);
        }
        done += take;
    }
    return true;
}

// ---------------------------------------------------------------- writing

bool KROAudioFileFLACContent::beginWrite(KROErrorPtr* error) {
    setEncoding(kro::fourCC("flac"));
    setBitDepth(isFloatingPoint() || bitDepth() > 16 ? 24 : bitDepth() > 8 ? 16 : 8);
    setIsFloatingPoint(false);
    if (!createWritingFile(error)) {
        return false;
    }
    // libFLAC writes the file through its own stream.
    closeFileWriter();
    encoder_ = std::make_unique<Encoder>();
    Encoder& encoder = *encoder_;
    FLAC__StreamEncoder* flac = encoder.encoder;
    const auto rate = static_cast<std::uint32_t>(std::lround(std::max(sampleRate(), 0.0)));
    FLAC__stream_encoder_set_channels(flac, static_cast<std::uint32_t>(numberOfChannels()));
    FLAC__stream_encoder_set_bits_per_sample(flac, static_cast<std::uint32_t>(bitDepth()));
    FLAC__stream_encoder_set_sample_rate(flac, rate);
    FLAC__stream_encoder_set_compression_level(flac, static_cast<std::uint32_t>(compressionLevel_));

    encoder.comments = FLAC__metadata_object_new(FLAC__METADATA_TYPE_VORBIS_COMMENT);
    for (const auto& [name, value] : KROAudioTextTags::take("vorbis", metadata())) {
        FLAC__StreamMetadata_VorbisComment_Entry entry;
        if (FLAC__metadata_object_vorbiscomment_entry_from_name_value_pair(&entry, name.c_str(),
                                                                           value.c_str())) {
            FLAC__metadata_object_vorbiscomment_append_comment(encoder.comments, entry, false);
        }
    }
    encoder.padding = FLAC__metadata_object_new(FLAC__METADATA_TYPE_PADDING);
    encoder.padding->length = paddingLength;
    FLAC__StreamMetadata* blocks[] = {encoder.comments, encoder.padding};
    FLAC__stream_encoder_set_metadata(flac, blocks, 2);
    if (FLAC__stream_encoder_init_file(flac, URL().c_str(), Encoder::progress, &encoder) !=
        FLAC__STREAM_ENCODER_INIT_STATUS_OK) {
        encoder_.reset();
        return failWithFileName(error, encoderFailed, "KROAudioFileContent_action_writing");
    }
    return true;
}

bool KROAudioFileFLACContent::writeAudio(const KROAudioBufferList& buffer, KROErrorPtr* error) {
    if (!encoder_) {
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_writing");
    }
    const std::uint32_t channels = buffer.numberOfChannels();
    if (channels != numberOfChannels()) {
        return KROFail<KROAudioFileContentError>(error, 1, "KROAudioFileContent_action_writing");
    }
    const KROSampleFormat format = flacSampleFormat(bitDepth());
    std::vector<FLAC__int32>& scratch = encoder_->scratch;
    for (std::uint64_t done = 0; done < buffer.frames();) {
        const std::size_t count = std::min<std::uint64_t>(encodeBlock, buffer.frames() - done);
        scratch.resize(count * channels);
        for (std::uint32_t channel = 0; channel < channels; ++channel) {
            KROEncodeSamples(format, buffer.channel(channel) + done, 1, scratch.data() + channel,
                             static_cast<std::ptrdiff_t>(channels * sizeof(FLAC__int32)), count);
        }
        if (!FLAC__stream_encoder_process_interleaved(encoder_->encoder, scratch.data(),
                                                      static_cast<std::uint32_t>(count))) {
            return failWithFileName(error, encoderFailed, "KROAudioFileContent_action_writing");
        }
        done += count;
    }
    setFrames(frames() + buffer.frames());
    return true;
}

bool KROAudioFileFLACContent::endWrite(KROErrorPtr* error) {
    if (!encoder_) {
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_writing");
    }
    const bool finished = FLAC__stream_encoder_finish(encoder_->encoder);
    const bool done =
        finished ? addSeekTableAndCueSheet(error)
                 : failWithFileName(error, encoderFailed, "KROAudioFileContent_action_finishing");
    encoder_.reset();
    return done;
}

bool KROAudioFileFLACContent::addSeekTableAndCueSheet(KROErrorPtr* error) {
    Encoder& encoder = *encoder_;
    if (encoder.frameStarts.empty()) {
        return true;
    }
    // Byte offsets count from the first frame, which begins after the
    // metadata; the encoder's byte counts include the metadata.
    const std::uint64_t firstFrame = firstFrameOffset(URL());
    encoder.frameStarts.front().second = firstFrame;
    FLAC__StreamMetadata* table = FLAC__metadata_object_new(FLAC__METADATA_TYPE_SEEKTABLE);
    const auto spacing = static_cast<std::uint64_t>(seekPointSpacing * sampleRate());
    std::uint64_t nextPoint = 0;
    for (std::size_t index = 0; index < encoder.frameStarts.size(); ++index) {
        const auto [sample, bytes] = encoder.frameStarts[index];
        const std::uint64_t end = index + 1 < encoder.frameStarts.size()
                                      ? encoder.frameStarts[index + 1].first
                                      : encoder.samplesWritten;
        if (end <= nextPoint) {
            continue;
        }
        FLAC__StreamMetadata_SeekPoint point{sample, bytes - firstFrame,
                                             static_cast<std::uint32_t>(end - sample)};
        FLAC__metadata_object_seektable_insert_point(table, table->data.seek_table.num_points,
                                                     point);
        // The next point goes to the frame that holds the next multiple of the spacing.
        const std::uint64_t step = std::max<std::uint64_t>(spacing, 1);
        nextPoint = (end + step - 1) / step * step;
    }
    std::vector<std::uint64_t> markers;
    for (const auto& label : labels()) {
        if (label->type() == "marker") {
            markers.push_back(static_cast<std::uint64_t>(std::clamp(
                std::round(label->start() * sampleRate()), 0.0, static_cast<double>(frames()))));
        }
    }
    std::sort(markers.begin(), markers.end());
    markers.erase(std::unique(markers.begin(), markers.end()), markers.end());
    FLAC__StreamMetadata* sheet = nullptr;
    // Tracks are numbered 1 to 99 before the lead-out.
    if (!markers.empty() && markers.size() < 100) {
        sheet = FLAC__metadata_object_new(FLAC__METADATA_TYPE_CUESHEET);
        for (std::size_t index = 0; index <= markers.size(); ++index) {
            const bool leadOut = index == markers.size();
            FLAC__StreamMetadata_CueSheet_Track track{};
            track.offset = leadOut ? frames() : markers[index];
            track.number = leadOut ? 255 : static_cast<FLAC__byte>(index + 1);
            FLAC__metadata_object_cuesheet_insert_track(sheet, static_cast<unsigned>(index), &track,
                                                        true);
            if (!leadOut) {
                FLAC__StreamMetadata_CueSheet_Index point{0, 1};
                FLAC__metadata_object_cuesheet_track_insert_index(
                    sheet, static_cast<unsigned>(index), 0, point);
            }
        }
    }
    FLAC__Metadata_Chain* chain = FLAC__metadata_chain_new();
    bool done = FLAC__metadata_chain_read(chain, URL().c_str());
    if (done) {
        FLAC__Metadata_Iterator* iterator = FLAC__metadata_iterator_new();
        FLAC__metadata_iterator_init(iterator, chain);
        // After the stream info; the chain owns the blocks once inserted.
        done = FLAC__metadata_iterator_insert_block_after(iterator, table);
        table = done ? nullptr : table;
        if (done && sheet) {
            done = FLAC__metadata_iterator_insert_block_after(iterator, sheet);
            sheet = done ? nullptr : sheet;
        }
        FLAC__metadata_iterator_delete(iterator);
        done = done && FLAC__metadata_chain_write(chain, true, false);
    }
    FLAC__metadata_chain_delete(chain);
    for (FLAC__StreamMetadata* left : {table, sheet}) {
        if (left) {
            FLAC__metadata_object_delete(left);
        }
    }
    return done || failWithFileName(error, encoderFailed, "KROAudioFileContent_action_finishing");
}
