#include "KROAudioFileM4AContent.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <vector>

#include "KROAudioTextTags.h"
#include "KROClassRegistry.h"
#include "KROError.h"
#include "KROSampleConversion.h"
#include "KROStringHelpers.h"
#include "KROURLExtension.h"

KRO_REGISTER_CLASS(KROAudioFileM4AContent, KROAudioFileContent)

namespace {

enum M4ACode : std::int64_t {
    notAnM4AFile = 1,
    codecNotSupported = 2,
    damagedStream = 6,
    encoderFailed = 7,
};

// The AAC bitrate when none is set.
constexpr std::int64_t defaultAACBitrate = 192000;
// Frames decoded and dropped before a frame reached by a seek, so that a
// codec with overlapping blocks has its state back; ALAC needs none.
constexpr std::uint64_t seekPreroll = 4096;

// The iTunes atoms of the metadata table as FFmpeg names them.
struct AtomName {
    const char* atom;
    const char* key;
};
constexpr std::array<AtomName, 13> atomNames = {{
    {"\xC2\xA9nam", "title"},
    {"\xC2\xA9"
     "ART",
     "artist"},
    {"\xC2\xA9"
     "alb",
     "album"},
    {"\xC2\xA9wrt", "composer"},
    {"\xC2\xA9gen", "genre"},
    {"\xC2\xA9"
     "day",
     "date"},
    {"trkn", "track"},
    {"tmpo", "tmpo"},
    {"\xC2\xA9too", "encoder"},
    {"cprt", "copyright"},
    {"\xC2\xA9"
     "cmt",
     "comment"},
    {"aART", "album_artist"},
    {"desc", "description"},
}};

// Keys FFmpeg reports about the container rather than the recording.
constexpr std::array<const char*, 3> containerKeys = {"major_brand", "minor_version",
                                                      "compatible_brands"};

std::string atomOfKey(std::string_view key) {
    for (const AtomName& name : atomNames) {
        if (key == name.key) {
            return name.atom;
        }
    }
    return std::string(key);
}

const char* keyOfAtom(std::string_view atom) {
    for (const AtomName& name : atomNames) {
        if (atom == name.atom) {
            return name.key;
        }
    }
    return nullptr;
}

} // namespace

// ---------------------------------------------------------------- decoder

struct KROAudioFileM4AContent::Decoder {
    AVFormatContext* format = nullptr;
    AVCodecContext* codec = nullptr;
    SwrContext* resampler = nullptr;
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    int stream = -1;
    int channels = 0;
    int rate = 0;
    // The time of frame 0 in the stream's time base.
    std::int64_t origin = 0;
    // The last decoded block, one run of samples per channel.
    std::vector<float> block;
    std::uint64_t blockStart = 0;
    std::uint64_t blockFrames = 0;
    // The block's time in the stream's time base, as FFmpeg gave it.
    std::int64_t blockTime = AV_NOPTS_VALUE;
    bool hasBlock = false;
    bool drained = false;

    ~Decoder() {
        close();
        av_packet_free(&packet);
        av_frame_free(&frame);
    }

    void close() {
        swr_free(&resampler);
        avcodec_free_context(&codec);
        avformat_close_input(&format);
        hasBlock = false;
        drained = false;
    }

    // Opens the file's best audio track and its decoder; 0 or the failure's code.
    std::int64_t open(const std::filesystem::path& path) {
        close();
        if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) < 0 ||
            avformat_find_stream_info(format, nullptr) < 0) {
            return notAnM4AFile;
        }
        const AVCodec* decoder = nullptr;
        stream = av_find_best_stream(format, AVMEDIA_TYPE_AUDIO, -1, -1, &decoder, 0);
        if (stream == AVERROR_STREAM_NOT_FOUND) {
            return notAnM4AFile;
        }
        if (stream < 0 || !decoder) {
            return codecNotSupported;
        }
        codec = avcodec_alloc_context3(decoder);
        const AVCodecParameters* parameters = format->streams[stream]->codecpar;
        if (!codec || avcodec_parameters_to_context(codec, parameters) < 0 ||
            avcodec_open2(codec, decoder, nullptr) < 0) {
            return codecNotSupported;
        }
        codec->pkt_timebase = format->streams[stream]->time_base;
        channels = codec->ch_layout.nb_channels;
        rate = codec->sample_rate;
        if (channels <= 0 || rate <= 0 ||
            swr_alloc_set_opts2(&resampler, &codec->ch_layout, AV_SAMPLE_FMT_FLTP, rate,
                                &codec->ch_layout, codec->sample_fmt, rate, 0, nullptr) < 0 ||
            swr_init(resampler) < 0) {
            return codecNotSupported;
        }
        return 0;
    }

    std::int64_t framesOfTime(std::int64_t time) const {
        return av_rescale_q(time, format->streams[stream]->time_base, AVRational{1, rate});
    }

    // The frames that decoding the whole track gives, from the packets alone:
    // their lengths, less what the container says to skip at either end.
    std::uint64_t countFrames() {
        // AAC decodes every packet to a whole frame, whatever the duration
        // of the last one says; ALAC packets carry their own length.
        const AVCodecParameters* parameters = format->streams[stream]->codecpar;
        const std::int64_t fixedFrameSize =
            parameters->codec_id == AV_CODEC_ID_ALAC ? 0 : parameters->frame_size;
        std::int64_t frames = 0;
        while (av_read_frame(format, packet) >= 0) {
            if (packet->stream_index == stream && (packet->flags & AV_PKT_FLAG_DISCARD) == 0) {
                frames += fixedFrameSize > 0 ? fixedFrameSize : framesOfTime(packet->duration);
                std::size_t size = 0;
                const std::uint8_t* skip =
                    av_packet_get_side_data(packet, AV_PKT_DATA_SKIP_SAMPLES, &size);
                if (skip && size >= 8) {
                    std::uint32_t start = 0;
                    std::uint32_t end = 0;
                    std::memcpy(&start, skip, 4);
                    std::memcpy(&end, skip + 4, 4);
                    frames -= std::int64_t{le32toh(start)} + le32toh(end);
                }
            }
            av_packet_unref(packet);
        }
        return static_cast<std::uint64_t>(std::max<std::int64_t>(frames, 0));
    }

    // Decodes the next block; false at the end of the track or on a failure.
    // A block's place comes from its time, or follows the last block.
    bool decodeNext() {
        while (true) {
            const int received = avcodec_receive_frame(codec, frame);
            if (received == 0) {
                return takeFrame();
            }
            if (received != AVERROR(EAGAIN) || drained) {
                return false;
            }
            const int read = av_read_frame(format, packet);
            if (read < 0) {
                avcodec_send_packet(codec, nullptr);
                drained = true;
                continue;
            }
            if (packet->stream_index == stream) {
                // A damaged packet is dropped; the next one decodes on.
                avcodec_send_packet(codec, packet);
            }
            av_packet_unref(packet);
        }
    }

    bool takeFrame() {
        const auto count = static_cast<std::uint64_t>(frame->nb_samples);
        blockTime = frame->best_effort_timestamp;
        const std::uint64_t start =
            frame->best_effort_timestamp != AV_NOPTS_VALUE
                ? static_cast<std::uint64_t>(std::max<std::int64_t>(
                      framesOfTime(frame->best_effort_timestamp - origin), 0))
                : blockStart + blockFrames;
        block.resize(count * static_cast<std::size_t>(channels));
        std::vector<std::uint8_t*> planes(static_cast<std::size_t>(channels));
        for (int channel = 0; channel < channels; ++channel) {
            planes[static_cast<std::size_t>(channel)] =
                reinterpret_cast<std::uint8_t*>(block.data() + channel * count);
        }
        const int converted =
            swr_convert(resampler, planes.data(), frame->nb_samples,
                        const_cast<const std::uint8_t**>(frame->extended_data), frame->nb_samples);
        av_frame_unref(frame);
        if (converted < 0) {
            return false;
        }
        blockStart = start;
        blockFrames = count;
        hasBlock = true;
        return true;
    }

    // Moves the decoder so that the next blocks lead up to frame.
    bool seekBefore(std::uint64_t frame, const std::filesystem::path& path) {
        const std::uint64_t preroll = codec->codec_id == AV_CODEC_ID_ALAC ? 0 : seekPreroll;
        // From the start, or once drained, the file is opened afresh: the
        // priming is skipped as on the first read, and a decoder that has
        // seen the end decodes the frames after a seek unlike a fresh one.
        if (frame <= preroll || drained) {
            const std::int64_t keptOrigin = origin;
            if (open(path) != 0) {
                return false;
            }
            origin = keptOrigin;
            if (frame <= preroll) {
                return true;
            }
            // The first packet carries the priming to skip; decoded before
            // the seek, as on the first read, it leaves the decoder as then.
            decodeNext();
        }
        const std::int64_t time =
            origin + av_rescale_q(static_cast<std::int64_t>(frame - preroll), AVRational{1, rate},
                                  format->streams[stream]->time_base);
        if (av_seek_frame(format, stream, time, AVSEEK_FLAG_BACKWARD) < 0) {
            return false;
        }
        avcodec_flush_buffers(codec);
        hasBlock = false;
        drained = false;
        return true;
    }
};

// ---------------------------------------------------------------- encoder

struct KROAudioFileM4AContent::Encoder {
    AVFormatContext* format = nullptr;
    AVCodecContext* codec = nullptr;
    AVStream* stream = nullptr;
    AVFrame* frame = av_frame_alloc();
    AVPacket* packet = av_packet_alloc();
    // Samples waiting for a whole codec frame, one run per channel.
    std::vector<std::vector<float>> queued;
    std::int64_t nextTime = 0;
    bool headerWritten = false;

    ~Encoder() {
        av_frame_free(&frame);
        av_packet_free(&packet);
        avcodec_free_context(&codec);
        if (format) {
            if (format->pb) {
                avio_closep(&format->pb);
            }
            avformat_free_context(format);
        }
    }

    // Sends the frame (null to drain) and writes the packets that come out.
    bool encode(const AVFrame* input) {
        if (avcodec_send_frame(codec, input) < 0) {
            return false;
        }
        while (true) {
            const int received = avcodec_receive_packet(codec, packet);
            if (received == AVERROR(EAGAIN) || received == AVERROR_EOF) {
                return true;
            }
            if (received < 0) {
                return false;
            }
            av_packet_rescale_ts(packet, codec->time_base, stream->time_base);
            packet->stream_index = stream->index;
            if (av_interleaved_write_frame(format, packet) < 0) {
                return false;
            }
        }
    }

    // Encodes the first count queued frames.
    bool encodeQueued(int count, std::uint64_t bitDepth) {
        av_frame_unref(frame);
        frame->nb_samples = count;
        frame->format = codec->sample_fmt;
        frame->sample_rate = codec->sample_rate;
        if (av_channel_layout_copy(&frame->ch_layout, &codec->ch_layout) < 0 ||
            av_frame_get_buffer(frame, 0) < 0) {
            return false;
        }
        KROSampleFormat samples;
        samples.coding = KROSampleCoding::signedInteger;
        samples.bytes = codec->sample_fmt == AV_SAMPLE_FMT_S16P ? 2 : 4;
        samples.bits = static_cast<std::uint8_t>(bitDepth);
        samples.alignedHigh = true;
        for (std::size_t channel = 0; channel < queued.size(); ++channel) {
            const float* source = queued[channel].data();
            if (codec->sample_fmt == AV_SAMPLE_FMT_FLTP) {
                std::copy_n(source, count, reinterpret_cast<float*>(frame->data[channel]));
            } else {
                KROEncodeSamples(samples, source, 1, frame->data[channel], samples.bytes,
                                 static_cast<std::size_t>(count));
            }
            queued[channel].erase(queued[channel].begin(), queued[channel].begin() + count);
        }
        frame->pts = nextTime;
        nextTime += count;
        return encode(frame);
    }
};

// ---------------------------------------------------------------- class side

KROAudioFileM4AContent::KROAudioFileM4AContent() {
    setEncoding(kro::fourCC("alac"));
}

KROAudioFileM4AContent::~KROAudioFileM4AContent() = default;

std::string KROAudioFileM4AContent::format() const {
    return "M4A Audio File";
}

std::string KROAudioFileM4AContent::extension() const {
    return "m4a";
}

bool KROAudioFileM4AContent::supportsURL(const std::filesystem::path& url) const {
    const std::string head = fileHead(url, 8);
    return head.size() == 8 && head.ends_with("ftyp");
}

KROErrorPtr KROAudioFileM4AContent::errorWithCode(std::int64_t code,
                                                  const std::string& action) const {
    return KROAudioFileM4AContentError::errorWithCode(code, action);
}

// ---------------------------------------------------------------- reading

bool KROAudioFileM4AContent::openDecoder(KROErrorPtr* error) {
    if (const std::int64_t code = decoder_->open(URL())) {
        return failWithFileName(error, code, "KROAudioFileContent_action_parsing");
    }
    return true;
}

bool KROAudioFileM4AContent::parse(KROErrorPtr* error) {
    std::uint64_t size = 0;
    if (!kro::getSizeOfFile(URL(), size, error)) {
        return false;
    }
    setFileSize(size);
    av_log_set_level(AV_LOG_QUIET);
    decoder_ = std::make_unique<Decoder>();
    if (!openDecoder(error)) {
        return false;
    }
    Decoder& decoder = *decoder_;
    setSampleRate(decoder.rate);
    setNumberOfChannels(static_cast<std::uint64_t>(decoder.channels));
    const AVCodecParameters* parameters = decoder.format->streams[decoder.stream]->codecpar;
    const bool lossless = parameters->codec_id == AV_CODEC_ID_ALAC;
    setEncoding(kro::fourCC(lossless ? "alac" : "aac "));
    setBitDepth(lossless && parameters->bits_per_raw_sample > 0
                    ? static_cast<std::uint64_t>(parameters->bits_per_raw_sample)
                    : 16);
    setIsFloatingPoint(false);
    setBitrate(static_cast<std::uint64_t>(std::max<std::int64_t>(parameters->bit_rate, 0)));

    KROAudioTextTags::Pairs pairs;
    const AVStream* track = decoder.format->streams[decoder.stream];
    for (const AVDictionary* tags : {static_cast<const AVDictionary*>(decoder.format->metadata),
                                     static_cast<const AVDictionary*>(track->metadata)}) {
        const AVDictionaryEntry* entry = nullptr;
        while ((entry = av_dict_get(tags, "", entry, AV_DICT_IGNORE_SUFFIX))) {
            const std::string_view key = entry->key;
            if (std::find(containerKeys.begin(), containerKeys.end(), key) == containerKeys.end() &&
                key != "handler_name" && key != "vendor_id" && key != "language") {
                pairs.emplace_back(atomOfKey(key), entry->value);
            }
        }
    }
    KROAudioTextTags::read("quicktime", pairs, metadata());

    setFrames(decoder.countFrames());
    // The count read the packets to the end; decoding starts afresh, and the
    // first block's time is frame 0.
    if (!openDecoder(error)) {
        return false;
    }
    if (decoder.decodeNext()) {
        decoder.origin = decoder.blockTime != AV_NOPTS_VALUE ? decoder.blockTime : 0;
        decoder.blockStart = 0;
    }
    return true;
}

bool KROAudioFileM4AContent::getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                                      KROErrorPtr* error) {
    std::uint64_t count = 0;
    if (!prepareGetAudio(buffer, frame, &count, error)) {
        return false;
    }
    if (count == 0) {
        return true;
    }
    std::lock_guard guard(readLock_);
    if (!decoder_ || !decoder_->codec) {
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_reading");
    }
    Decoder& decoder = *decoder_;
    const auto channels = static_cast<std::uint32_t>(numberOfChannels());
    std::uint64_t done = 0;
    // Each pass copies, decodes on, or seeks; a seek that lands past the
    // frame, or a decoder that makes no progress, ends the read.
    for (int seeks = 0; done < count;) {
        const std::uint64_t position = frame + done;
        const std::uint64_t end = decoder.blockStart + decoder.blockFrames;
        if (decoder.hasBlock && decoder.blockStart <= position && position < end) {
            const std::uint64_t offset = position - decoder.blockStart;
            const std::uint64_t take = std::min(count - done, end - position);
            for (std::uint32_t channel = 0; channel < channels; ++channel) {
                std::copy_n(decoder.block.data() + channel * decoder.blockFrames + offset, take,
                            buffer.channel(channel) + done);
            }
            done += take;
        } else if (decoder.hasBlock && decoder.blockStart <= position &&
                   position < end + seekPreroll * 4) {
            if (!decoder.decodeNext()) {
                break;
            }
        } else if (seeks++ < 2 && decoder.seekBefore(position, URL())) {
            if (!decoder.decodeNext()) {
                break;
            }
            if (decoder.codec && decoder.blockStart > position && position > seekPreroll) {
                return failWithFileName(error, damagedStream,
                                        "KROAudioFileContent_action_getAudio");
            }
        } else {
            return failWithFileName(error, damagedStream, "KROAudioFileContent_action_getAudio");
        }
    }
    // A track that ends before its packets said reads as silence.
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
        std::fill(buffer.channel(channel) + done, buffer.channel(channel) + count, 0.0f);
    }
    return true;
}

// ---------------------------------------------------------------- writing

bool KROAudioFileM4AContent::beginWrite(KROErrorPtr* error) {
    const bool aac = encoding() == kro::fourCC("aac ");
    setEncoding(kro::fourCC(aac ? "aac " : "alac"));
    setBitDepth(aac ? 16 : isFloatingPoint() || bitDepth() > 16 ? 24 : 16);
    setIsFloatingPoint(false);
    if (!createWritingFile(error)) {
        return false;
    }
    // FFmpeg writes the file through its own I/O.
    closeFileWriter();
    av_log_set_level(AV_LOG_QUIET);
    encoder_ = std::make_unique<Encoder>();
    Encoder& encoder = *encoder_;
    const AVCodec* codec = avcodec_find_encoder(aac ? AV_CODEC_ID_AAC : AV_CODEC_ID_ALAC);
    const auto fail = [&] {
        return failWithFileName(error, encoderFailed, "KROAudioFileContent_action_writing");
    };
    if (!codec ||
        avformat_alloc_output_context2(&encoder.format, nullptr, "ipod", URL().c_str()) < 0) {
        return fail();
    }
    encoder.codec = avcodec_alloc_context3(codec);
    encoder.stream = avformat_new_stream(encoder.format, nullptr);
    if (!encoder.codec || !encoder.stream) {
        return fail();
    }
    AVCodecContext& context = *encoder.codec;
    av_channel_layout_default(&context.ch_layout, static_cast<int>(numberOfChannels()));
    context.sample_rate = static_cast<int>(std::lround(sampleRate()));
    context.time_base = AVRational{1, context.sample_rate};
    if (aac) {
        context.sample_fmt = AV_SAMPLE_FMT_FLTP;
        context.bit_rate = bitrate() > 0 ? static_cast<std::int64_t>(bitrate()) : defaultAACBitrate;
    } else {
        context.sample_fmt = bitDepth() == 16 ? AV_SAMPLE_FMT_S16P : AV_SAMPLE_FMT_S32P;
        context.bits_per_raw_sample = static_cast<int>(bitDepth());
    }
    if (encoder.format->oformat->flags & AVFMT_GLOBALHEADER) {
        context.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    if (avcodec_open2(&context, codec, nullptr) < 0 ||
        avcodec_parameters_from_context(encoder.stream->codecpar, &context) < 0) {
        return fail();
    }
    encoder.stream->time_base = context.time_base;
    for (const auto& [atom, value] : KROAudioTextTags::take("quicktime", metadata())) {
        if (const char* key = keyOfAtom(atom)) {
            av_dict_set(&encoder.format->metadata, key, value.c_str(), 0);
        }
    }
    if (avio_open(&encoder.format->pb, URL().c_str(), AVIO_FLAG_WRITE) < 0 ||
        avformat_write_header(encoder.format, nullptr) < 0) {
        return fail();
    }
    encoder.headerWritten = true;
    encoder.queued.resize(numberOfChannels());
    return true;
}

bool KROAudioFileM4AContent::writeAudio(const KROAudioBufferList& buffer, KROErrorPtr* error) {
    if (!encoder_ || !encoder_->headerWritten) {
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_writing");
    }
    if (buffer.numberOfChannels() != numberOfChannels()) {
        return KROFail<KROAudioFileContentError>(error, 1, "KROAudioFileContent_action_writing");
    }
    Encoder& encoder = *encoder_;
    for (std::uint32_t channel = 0; channel < numberOfChannels(); ++channel) {
        encoder.queued[channel].insert(encoder.queued[channel].end(), buffer.channel(channel),
                                       buffer.channel(channel) + buffer.frames());
    }
    const int frameSize = encoder.codec->frame_size > 0 ? encoder.codec->frame_size : 4096;
    while (encoder.queued[0].size() >= static_cast<std::size_t>(frameSize)) {
        if (!encoder.encodeQueued(frameSize, bitDepth())) {
            return failWithFileName(error, encoderFailed, "KROAudioFileContent_action_writing");
        }
    }
    setFrames(frames() + buffer.frames());
    return true;
}

bool KROAudioFileM4AContent::endWrite(KROErrorPtr* error) {
    if (!encoder_ || !encoder_->headerWritten) {
        encoder_.reset();
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_writing");
    }
    Encoder& encoder = *encoder_;
    const auto left = static_cast<int>(encoder.queued[0].size());
    const bool done = (left == 0 || encoder.encodeQueued(left, bitDepth())) &&
                      encoder.encode(nullptr) && av_write_trailer(encoder.format) == 0;
    encoder_.reset();
    return done || failWithFileName(error, encoderFailed, "KROAudioFileContent_action_finishing");
}
