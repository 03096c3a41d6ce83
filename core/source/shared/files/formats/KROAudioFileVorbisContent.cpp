#include "KROAudioFileVorbisContent.h"

#include <vorbis/codec.h>
#include <vorbis/vorbisenc.h>
#include <vorbis/vorbisfile.h>

#include <algorithm>
#include <cmath>
#include <functional>

#include "KROAudioTextTags.h"
#include "KROClassRegistry.h"
#include "KROError.h"
#include "KROStringHelpers.h"
#include "KROURLExtension.h"

KRO_REGISTER_CLASS(KROAudioFileVorbisContent, KROAudioFileContent)

namespace {

enum VorbisCode : std::int64_t {
    notAVorbisStream = 1,
    changingStream = 2,
    damagedStream = 6,
    encoderFailed = 7,
};

// The encoder's quality when none is set.
constexpr float defaultQuality = 0.5f;

// The frames of a stream whose end gives no length, cut short or never
// finished, by decoding it all; the stream is left at its start.
std::uint64_t countFrames(OggVorbis_File& file) {
    std::uint64_t frames = 0;
    for (int holes = 0; holes < 8;) {
        float** pcm = nullptr;
        int section = 0;
        const long read = ov_read_float(&file, &pcm, 4096, &section);
        if (read == OV_HOLE) {
            ++holes;
        } else if (read <= 0) {
            break;
        } else {
            frames += static_cast<std::uint64_t>(read);
        }
    }
    ov_raw_seek(&file, 0);
    return frames;
}

} // namespace

// ---------------------------------------------------------------- decoder

struct KROAudioFileVorbisContent::Decoder {
    OggVorbis_File file{};
    bool open = false;
    // Where the decoder stands, so that reading on needs no seek.
    std::uint64_t position = 0;

    ~Decoder() {
        if (open) {
            ov_clear(&file);
        }
    }
};

// ---------------------------------------------------------------- encoder

struct KROAudioFileVorbisContent::Encoder {
    vorbis_info info{};
    vorbis_comment comment{};
    vorbis_dsp_state dsp{};
    vorbis_block block{};
    ogg_stream_state stream{};
    bool started = false;

    Encoder() {
        vorbis_info_init(&info);
        vorbis_comment_init(&comment);
    }
    ~Encoder() {
        if (started) {
            ogg_stream_clear(&stream);
            vorbis_block_clear(&block);
            vorbis_dsp_clear(&dsp);
        }
        vorbis_comment_clear(&comment);
        vorbis_info_clear(&info);
    }
};

// ---------------------------------------------------------------- class side

KROAudioFileVorbisContent::KROAudioFileVorbisContent() {
    setEncoding(kro::fourCC("vorb"));
}

KROAudioFileVorbisContent::~KROAudioFileVorbisContent() = default;

std::string KROAudioFileVorbisContent::format() const {
    return "Ogg Vorbis Audio File";
}

std::string KROAudioFileVorbisContent::extension() const {
    return "ogg";
}

bool KROAudioFileVorbisContent::supportsURL(const std::filesystem::path& url) const {
    // A page header of 27 bytes, its segment table, then "\x01vorbis".
    const std::string page = fileHead(url, 27 + 255 + 7);
    if (page.size() < 27 || !page.starts_with("OggS")) {
        return false;
    }
    const std::size_t packet = 27 + std::size_t{static_cast<unsigned char>(page[26])};
    return page.size() >= packet + 7 && page.compare(packet, 7, "\x01vorbis") == 0;
}

KROErrorPtr KROAudioFileVorbisContent::errorWithCode(std::int64_t code,
                                                     const std::string& action) const {
    return KROAudioFileVorbisContentError::errorWithCode(code, action);
}

// ---------------------------------------------------------------- reading

bool KROAudioFileVorbisContent::parse(KROErrorPtr* error) {
    std::uint64_t size = 0;
    if (!kro::getSizeOfFile(URL(), size, error)) {
        return false;
    }
    setFileSize(size);
    decoder_ = std::make_unique<Decoder>();
    if (ov_fopen(URL().c_str(), &decoder_->file) != 0) {
        return failWithFileName(error, notAVorbisStream, "KROAudioFileContent_action_parsing");
    }
    decoder_->open = true;
    OggVorbis_File& file = decoder_->file;
    const vorbis_info* info = ov_info(&file, 0);
    if (!info || info->channels <= 0 || info->rate <= 0) {
        return failWithFileName(error, notAVorbisStream, "KROAudioFileContent_action_parsing");
    }
    // Chained streams of other layouts would need a converter of their own.
    for (long link = 1; link < ov_streams(&file); ++link) {
        const vorbis_info* other = ov_info(&file, static_cast<int>(link));
        if (!other || other->channels != info->channels || other->rate != info->rate) {
            return failWithFileName(error, changingStream, "KROAudioFileContent_action_parsing");
        }
    }
    setSampleRate(static_cast<double>(info->rate));
    setNumberOfChannels(static_cast<std::uint64_t>(info->channels));
    setBitDepth(16);
    setIsFloatingPoint(false);
    const ogg_int64_t total = ov_pcm_total(&file, -1);
    setFrames(total > 0 ? static_cast<std::uint64_t>(total) : countFrames(file));
    setBitrate(static_cast<std::uint64_t>(std::max<long>(ov_bitrate(&file, -1), 0)));
    if (const vorbis_comment* comment = ov_comment(&file, 0)) {
        KROAudioTextTags::Pairs pairs;
        for (int index = 0; index < comment->comments; ++index) {
            const std::string text(comment->user_comments[index],
                                   static_cast<std::size_t>(comment->comment_lengths[index]));
            const std::size_t equals = text.find('=');
            if (equals != std::string::npos) {
                pairs.emplace_back(text.substr(0, equals), text.substr(equals + 1));
            }
        }
        KROAudioTextTags::read("vorbis", pairs, metadata());
    }
    return true;
}

bool KROAudioFileVorbisContent::getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                                         KROErrorPtr* error) {
    std::uint64_t count = 0;
    if (!prepareGetAudio(buffer, frame, &count, error)) {
        return false;
    }
    if (count == 0) {
        return true;
    }
    std::lock_guard guard(readLock_);
    if (!decoder_ || !decoder_->open) {
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_reading");
    }
    Decoder& decoder = *decoder_;
    if (decoder.position != frame) {
        if (ov_pcm_seek(&decoder.file, static_cast<ogg_int64_t>(frame)) != 0) {
            return failWithFileName(error, damagedStream, "KROAudioFileContent_action_getAudio");
        }
        decoder.position = frame;
    }
    std::uint64_t done = 0;
    // A damaged page gives a hole (OV_HOLE) that is skipped; a few in a row
    // end the read rather than spin.
    for (int holes = 0; done < count && holes < 8;) {
        float** pcm = nullptr;
        int section = 0;
        const long read =
            ov_read_float(&decoder.file, &pcm,
                          static_cast<int>(std::min<std::uint64_t>(count - done, 4096)), &section);
        if (read == OV_HOLE) {
            ++holes;
            continue;
        }
        if (read <= 0) {
            break;
        }
        for (std::uint32_t channel = 0; channel < numberOfChannels(); ++channel) {
            std::copy_n(pcm[channel], read, buffer.channel(channel) + done);
        }
        done += static_cast<std::uint64_t>(read);
        decoder.position += static_cast<std::uint64_t>(read);
        holes = 0;
    }
    // A stream that ends before its last granule position says reads as silence.
    for (std::uint32_t channel = 0; channel < numberOfChannels(); ++channel) {
        std::fill(buffer.channel(channel) + done, buffer.channel(channel) + count, 0.0f);
    }
    return true;
}

// ---------------------------------------------------------------- writing

bool KROAudioFileVorbisContent::beginWrite(KROErrorPtr* error) {
    setEncoding(kro::fourCC("vorb"));
    setBitDepth(16);
    setIsFloatingPoint(false);
    if (!createWritingFile(error)) {
        return false;
    }
    encoder_ = std::make_unique<Encoder>();
    Encoder& encoder = *encoder_;
    const float asked = quality() > 0 ? std::min(quality(), 1.0f) : defaultQuality;
    if (vorbis_encode_init_vbr(&encoder.info, static_cast<long>(numberOfChannels()),
                               std::lround(sampleRate()), asked) != 0) {
        return failWithFileName(error, encoderFailed, "KROAudioFileContent_action_writing");
    }
    for (const auto& [name, value] : KROAudioTextTags::take("vorbis", metadata())) {
        vorbis_comment_add_tag(&encoder.comment, name.c_str(), value.c_str());
    }
    vorbis_analysis_init(&encoder.dsp, &encoder.info);
    vorbis_block_init(&encoder.dsp, &encoder.block);
    // Any serial number will do; one from the hidden file's unique name keeps
    // streams apart when files are chained.
    ogg_stream_init(&encoder.stream,
                    static_cast<int>(std::hash<std::string>{}(URL().string()) & 0x7FFFFFFF));
    encoder.started = true;
    ogg_packet identification;
    ogg_packet comments;
    ogg_packet codebooks;
    vorbis_analysis_headerout(&encoder.dsp, &encoder.comment, &identification, &comments,
                              &codebooks);
    ogg_stream_packetin(&encoder.stream, &identification);
    ogg_stream_packetin(&encoder.stream, &comments);
    ogg_stream_packetin(&encoder.stream, &codebooks);
    // The headers end on a page of their own, so the audio starts a new page.
    ogg_page page;
    while (ogg_stream_flush(&encoder.stream, &page) != 0) {
        if (!fileWriter_->writeBuffer(page.header, static_cast<std::size_t>(page.header_len),
                                      error) ||
            !fileWriter_->writeBuffer(page.body, static_cast<std::size_t>(page.body_len), error)) {
            return false;
        }
    }
    return true;
}

bool KROAudioFileVorbisContent::writeAudio(const KROAudioBufferList& buffer, KROErrorPtr* error) {
    if (!encoder_ || !fileWriter_) {
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_writing");
    }
    if (buffer.numberOfChannels() != numberOfChannels()) {
        return KROFail<KROAudioFileContentError>(error, 1, "KROAudioFileContent_action_writing");
    }
    constexpr std::uint64_t block = 4096;
    for (std::uint64_t done = 0; done < buffer.frames();) {
        const std::uint64_t count = std::min(block, buffer.frames() - done);
        float** input = vorbis_analysis_buffer(&encoder_->dsp, static_cast<int>(count));
        for (std::uint32_t channel = 0; channel < numberOfChannels(); ++channel) {
            std::copy_n(buffer.channel(channel) + done, count, input[channel]);
        }
        vorbis_analysis_wrote(&encoder_->dsp, static_cast<int>(count));
        if (!writePages(false, error)) {
            return false;
        }
        done += count;
    }
    setFrames(frames() + buffer.frames());
    return true;
}

bool KROAudioFileVorbisContent::writePages(bool flush, KROErrorPtr* error) {
    Encoder& encoder = *encoder_;
    while (vorbis_analysis_blockout(&encoder.dsp, &encoder.block) == 1) {
        vorbis_analysis(&encoder.block, nullptr);
        vorbis_bitrate_addblock(&encoder.block);
        ogg_packet packet;
        while (vorbis_bitrate_flushpacket(&encoder.dsp, &packet) == 1) {
            ogg_stream_packetin(&encoder.stream, &packet);
        }
    }
    ogg_page page;
    while ((flush ? ogg_stream_flush(&encoder.stream, &page)
                  : ogg_stream_pageout(&encoder.stream, &page)) != 0) {
        if (!fileWriter_->writeBuffer(page.header, static_cast<std::size_t>(page.header_len),
                                      error) ||
            !fileWriter_->writeBuffer(page.body, static_cast<std::size_t>(page.body_len), error)) {
            return failWithFileName(error, encoderFailed, "KROAudioFileContent_action_writing");
        }
    }
    return true;
}

bool KROAudioFileVorbisContent::endWrite(KROErrorPtr* error) {
    if (!encoder_ || !fileWriter_) {
        encoder_.reset();
        closeFileWriter();
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_writing");
    }
    // No more samples: the last packet carries the end of stream.
    vorbis_analysis_wrote(&encoder_->dsp, 0);
    const bool done = writePages(true, error) && fileWriter_->flush(error);
    encoder_.reset();
    closeFileWriter();
    return done;
}
