#include "KROAudioFileMP3Content.h"

#include <lame/lame.h>
#include <mpg123.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "KROAudioFileChunk.h"
#include "KROClassRegistry.h"
#include "KROError.h"
#include "KROStringHelpers.h"
#include "KROURLExtension.h"

KRO_REGISTER_CLASS(KROAudioFileMP3Content, KROAudioFileContent)

namespace {

enum MP3Code : std::int64_t {
    notAnMP3Stream = 1,
    tooManyChannels = 2,
    damagedStream = 6,
    encoderFailed = 7,
};

// The VBR quality when none is set, on the scale of 0 to 1.
constexpr float defaultQuality = 0.8f;
// Frames handed to the encoder at once.
constexpr std::size_t encodeBlock = 4096;

// Sync, a known MPEG version and layer, a bitrate that is not the free or
// bad one and a known rate.
bool isFrameHeader(const unsigned char* bytes) {
    return bytes[0] == 0xFF && (bytes[1] & 0xE0) == 0xE0 && (bytes[1] & 0x18) != 0x08 &&
           (bytes[1] & 0x06) != 0 && (bytes[2] & 0xF0) != 0xF0 && (bytes[2] & 0xF0) != 0 &&
           (bytes[2] & 0x0C) != 0x0C;
}

// ID3 texts may end in the terminator of their encoding, which is no part
// of the text.
void trimTerminators(KROPropertyList& metadata) {
    for (const std::string& key : metadata.allKeys()) {
        const std::string* text = metadata.objectForKey(key)->stringValue();
        if (text && !text->empty() && text->back() == '\0') {
            std::string trimmed = *text;
            while (!trimmed.empty() && trimmed.back() == '\0') {
                trimmed.pop_back();
            }
            metadata.setObjectForKey(key, KROPropertyList(std::move(trimmed)));
        }
    }
}

void initializeMpg123() {
    static const int initialized = mpg123_init();
    (void)initialized;
}

} // namespace

// ---------------------------------------------------------------- decoder

struct KROAudioFileMP3Content::Decoder {
    mpg123_handle* handle = nullptr;
    std::uint64_t position = 0;
    std::vector<float> scratch;

    ~Decoder() {
        if (handle) {
            mpg123_close(handle);
            mpg123_delete(handle);
        }
    }
};

// ---------------------------------------------------------------- encoder

struct KROAudioFileMP3Content::Encoder {
    lame_global_flags* lame = lame_init();
    std::vector<unsigned char> output;

    ~Encoder() { lame_close(lame); }
};

// ---------------------------------------------------------------- class side

KROAudioFileMP3Content::KROAudioFileMP3Content() {
    setEncoding(kro::fourCC(".mp3"));
}

KROAudioFileMP3Content::~KROAudioFileMP3Content() = default;

std::string KROAudioFileMP3Content::format() const {
    return "MP3 Audio File";
}

std::string KROAudioFileMP3Content::extension() const {
    return "mp3";
}

bool KROAudioFileMP3Content::supportsURL(const std::filesystem::path& url) const {
    const std::string head = fileHead(url, 4, true);
    return head.size() == 4 && isFrameHeader(reinterpret_cast<const unsigned char*>(head.data()));
}

KROErrorPtr KROAudioFileMP3Content::errorWithCode(std::int64_t code,
                                                  const std::string& action) const {
    return KROAudioFileMP3ContentError::errorWithCode(code, action);
}

// ---------------------------------------------------------------- reading

bool KROAudioFileMP3Content::parse(KROErrorPtr* error) {
    // A reader of its own for the tag, with the page cache left as it is:
    // libmpg123 reads the file next.
    KROFileReader tagReader;
    std::uint64_t size = 0;
    if (!tagReader.initWithURL(URL(), error) || !kro::getSizeOfFile(URL(), size, error)) {
        return false;
    }
    setFileSize(size);
    parseID3TagInFile(tagReader, 0);
    trimTerminators(metadata());
    initializeMpg123();
    decoder_ = std::make_unique<Decoder>();
    decoder_->handle = mpg123_new(nullptr, nullptr);
    mpg123_handle* handle = decoder_->handle;
    if (!handle) {
        return failWithFileName(error, notAnMP3Stream, "KROAudioFileContent_action_parsing");
    }
    // Floats at every rate, in the stream's own channels.
    mpg123_format_none(handle);
    const long* rates = nullptr;
    std::size_t rateCount = 0;
    mpg123_rates(&rates, &rateCount);
    for (std::size_t index = 0; index < rateCount; ++index) {
        mpg123_format(handle, rates[index], MPG123_MONO | MPG123_STEREO, MPG123_ENC_FLOAT_32);
    }
    long rate = 0;
    int channels = 0;
    int encoding = 0;
    const bool opened =
        mpg123_param(handle, MPG123_ADD_FLAGS, MPG123_GAPLESS | MPG123_QUIET, 0) == MPG123_OK &&
        mpg123_open(handle, URL().c_str()) == MPG123_OK &&
        mpg123_getformat(handle, &rate, &channels, &encoding) == MPG123_OK;
    if (!opened || rate <= 0 || channels <= 0 || encoding != MPG123_ENC_FLOAT_32) {
        return failWithFileName(error, notAnMP3Stream, "KROAudioFileContent_action_parsing");
    }
    // The exact length needs a pass over the frames where no LAME or Xing
    // header gives it.
    long accurate = 0;
    if (mpg123_getstate(handle, MPG123_ACCURATE, &accurate, nullptr) != MPG123_OK || !accurate) {
        mpg123_scan(handle);
    }
    const off_t length = mpg123_length(handle);
    setSampleRate(static_cast<double>(rate));
    setNumberOfChannels(static_cast<std::uint64_t>(channels));
    setBitDepth(16);
    setIsFloatingPoint(false);
    setFrames(length > 0 ? static_cast<std::uint64_t>(length) : 0);
    mpg123_frameinfo info{};
    if (mpg123_info(handle, &info) == MPG123_OK) {
        setBitrate(static_cast<std::uint64_t>(std::max(info.bitrate, 0)) * 1000);
    }
    if (mpg123_seek(handle, 0, SEEK_SET) < 0) {
        return failWithFileName(error, notAnMP3Stream, "KROAudioFileContent_action_parsing");
    }
    return true;
}

bool KROAudioFileMP3Content::getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                                      KROErrorPtr* error) {
    std::uint64_t count = 0;
    if (!prepareGetAudio(buffer, frame, &count, error)) {
        return false;
    }
    if (count == 0) {
        return true;
    }
    std::lock_guard guard(readLock_);
    if (!decoder_) {
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_reading");
    }
    Decoder& decoder = *decoder_;
    const auto channels = static_cast<std::uint32_t>(numberOfChannels());
    if (decoder.position != frame) {
        if (mpg123_seek(decoder.handle, static_cast<off_t>(frame), SEEK_SET) < 0) {
            return failWithFileName(error, damagedStream, "KROAudioFileContent_action_getAudio");
        }
        decoder.position = frame;
    }
    std::uint64_t done = 0;
    while (done < count) {
        const std::uint64_t want = std::min<std::uint64_t>(count - done, 4096);
        decoder.scratch.resize(want * channels);
        std::size_t bytes = 0;
        const int status = mpg123_read(decoder.handle, decoder.scratch.data(),
                                       decoder.scratch.size() * sizeof(float), &bytes);
        const std::uint64_t got = bytes / (sizeof(float) * channels);
        for (std::uint32_t channel = 0; channel < channels; ++channel) {
            float* output = buffer.channel(channel) + done;
            const float* input = decoder.scratch.data() + channel;
            for (std::uint64_t index = 0; index < got; ++index) {
                output[index] = input[index * channels];
            }
        }
        done += got;
        decoder.position += got;
        if (status == MPG123_DONE ||
            (got == 0 && status != MPG123_OK && status != MPG123_NEW_FORMAT)) {
            break;
        }
    }
    // A stream that ends before its header's length reads as silence.
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
        std::fill(buffer.channel(channel) + done, buffer.channel(channel) + count, 0.0f);
    }
    return true;
}

// ---------------------------------------------------------------- writing

bool KROAudioFileMP3Content::beginWrite(KROErrorPtr* error) {
    setEncoding(kro::fourCC(".mp3"));
    setBitDepth(16);
    setIsFloatingPoint(false);
    if (numberOfChannels() == 0 || numberOfChannels() > 2) {
        return failWithFileName(error, tooManyChannels, "KROAudioFileContent_action_writing");
    }
    encoder_ = std::make_unique<Encoder>();
    lame_global_flags* lame = encoder_->lame;
    lame_set_num_channels(lame, static_cast<int>(numberOfChannels()));
    lame_set_in_samplerate(lame, static_cast<int>(std::lround(sampleRate())));
    lame_set_mode(lame, numberOfChannels() == 1 ? MONO : JOINT_STEREO);
    lame_set_write_id3tag_automatic(lame, 0);
    lame_set_bWriteVbrTag(lame, 1);
    if (bitrate() > 0) {
        lame_set_VBR(lame, vbr_off);
        lame_set_brate(lame, static_cast<int>(bitrate() / 1000));
    } else {
        const float asked = quality() > 0 ? std::min(quality(), 1.0f) : defaultQuality;
        lame_set_VBR(lame, vbr_default);
        lame_set_VBR_quality(lame, (1.0f - asked) * 9.0f);
    }
    if (!lame || lame_init_params(lame) < 0) {
        return failWithFileName(error, encoderFailed, "KROAudioFileContent_action_writing");
    }
    if (!createWritingFile(error)) {
        return false;
    }
    if (hasID3Metadata()) {
        KROAudioFileChunk chunk;
        chunk.setFile(fileWriter_.get());
        chunk.setByteOrder(KROAudioFileChunk::bigEndian);
        appendID3ToChunk(chunk);
        if (!chunk.appendToFile(error)) {
            return false;
        }
    }
    return fileWriter_->getPosition(audioDataPosition_, error);
}

bool KROAudioFileMP3Content::writeEncoded(int bytes, KROErrorPtr* error) {
    if (bytes < 0) {
        return failWithFileName(error, encoderFailed, "KROAudioFileContent_action_writing");
    }
    return bytes == 0 || fileWriter_->writeBuffer(encoder_->output.data(),
                                                  static_cast<std::size_t>(bytes), error);
}

bool KROAudioFileMP3Content::writeAudio(const KROAudioBufferList& buffer, KROErrorPtr* error) {
    if (!encoder_ || !fileWriter_) {
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_writing");
    }
    if (buffer.numberOfChannels() != numberOfChannels()) {
        return KROFail<KROAudioFileContentError>(error, 1, "KROAudioFileContent_action_writing");
    }
    // LAME's own bound on the bytes of a block.
    encoder_->output.resize(encodeBlock * 5 / 4 + 7200);
    const float* left = buffer.channel(0);
    const float* right = buffer.channel(numberOfChannels() > 1 ? 1 : 0);
    for (std::uint64_t done = 0; done < buffer.frames();) {
        const auto count =
            static_cast<int>(std::min<std::uint64_t>(encodeBlock, buffer.frames() - done));
        const int bytes = lame_encode_buffer_ieee_float(encoder_->lame, left + done, right + done,
                                                        count, encoder_->output.data(),
                                                        static_cast<int>(encoder_->output.size()));
        if (!writeEncoded(bytes, error)) {
            return false;
        }
        done += static_cast<std::uint64_t>(count);
    }
    setFrames(frames() + buffer.frames());
    return true;
}

bool KROAudioFileMP3Content::endWrite(KROErrorPtr* error) {
    if (!encoder_ || !fileWriter_) {
        encoder_.reset();
        closeFileWriter();
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_writing");
    }
    encoder_->output.resize(7200);
    bool done = writeEncoded(lame_encode_flush(encoder_->lame, encoder_->output.data(),
                                               static_cast<int>(encoder_->output.size())),
                             error);
    if (done) {
        encoder_->output.resize(4096);
        const std::size_t tag = lame_get_lametag_frame(encoder_->lame, encoder_->output.data(),
                                                       encoder_->output.size());
        done = tag == 0 ||
               (fileWriter_->flush(error) && fileWriter_->setPosition(audioDataPosition_, error) &&
                fileWriter_->writeBuffer(encoder_->output.data(), tag, error));
    }
    done = done && fileWriter_->flush(error);
    encoder_.reset();
    closeFileWriter();
    return done;
}
