// A small WAVE handler built on the file content frame the way the format
// handlers build on it: it walks the format and audio chunks, reads through
// getLinearAudio and writes through the linear write steps. The tests drive
// the read and write protocol with it and compare its files with libsndfile.
#pragma once

#include "KROAudioFileContent.h"
#include "KROStringHelpers.h"
#include "KROWAVEChunkList.h"

class KROTestWAVEContent : public KROAudioFileContent {
public:
    static std::string staticClassName() { return "KROTestWAVEContent"; }
    std::string className() const override { return staticClassName(); }

    KROTestWAVEContent() {
        setEncoding(kro::fourCC("lpcm"));
        setAudioDataByteOrder(KROAudioFileChunk::littleEndian);
    }

    // Lowered by a test to reach the limit without writing gigabytes.
    std::uint64_t sizeLimit = 0xFFFFFFFFu;

    bool parse(KROErrorPtr* error = nullptr) override {
        if (!openFileReader(error)) {
            return false;
        }
        KROWAVEChunkList chunks;
        chunks.initWithFileReader(*fileReader_);
        const auto format = chunks.chunkOfType(kro::fourCC("fmt "));
        if (!format) {
            return failWithFileName(error, noFormatChunk, "KROAudioFileContent_action_parsing");
        }
        const std::int16_t tag = format->shortValueAtPosition(0);
        setNumberOfChannels(static_cast<std::uint16_t>(format->shortValueAtPosition(2)));
        setSampleRate(format->intValueAtPosition(4));
        setBitDepth(static_cast<std::uint16_t>(format->shortValueAtPosition(14)));
        setIsFloatingPoint(tag == 3);
        // The extensible form (0xFFFE) of integer samples, as sox writes beyond two channels.
        if (tag != 1 && tag != 3 && tag != -2) {
            return failWithFileName(error, sampleFormatNotSupported,
                                    "KROAudioFileContent_action_parsing");
        }
        const auto data = chunks.chunkOfType(kro::fourCC("data"));
        if (!data) {
            return failWithFileName(error, noAudioChunk, "KROAudioFileContent_action_parsing");
        }
        if (audioDataLengthOfFrames(1) == 0) {
            return failWithFileName(error, impossibleFormat, "KROAudioFileContent_action_parsing");
        }
        audioDataPosition_ = data->dataLocation();
        audioDataLength_ = data->dataLength();
        setFrames(audioDataLength_ / audioDataLengthOfFrames(1));
        return true;
    }

    bool getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                  KROErrorPtr* error = nullptr) override {
        return getLinearAudio(buffer, frame, error);
    }

    bool beginWrite(KROErrorPtr* error = nullptr) override {
        if (!beginLinearWrite(error)) {
            return false;
        }
        KROAudioFileChunk chunk;
        chunk.setFile(fileWriter_.get());
        chunk.setByteOrder(KROAudioFileChunk::littleEndian);
        chunk.setByteCountMultiple(2);
        chunk.appendFourCharCode(kro::fourCC("RIFF"));
        chunk.appendInt(0);
        chunk.appendFourCharCode(kro::fourCC("WAVE"));
        if (!chunk.appendToFile(error)) {
            return false;
        }
        const auto blockAlign = static_cast<std::int16_t>(audioDataLengthOfFrames(1));
        chunk.reset();
        chunk.setType(kro::fourCC("fmt "));
        chunk.appendShort(isFloatingPoint() ? 3 : 1);
        chunk.appendShort(static_cast<std::int16_t>(numberOfChannels()));
        chunk.appendInt(static_cast<std::int32_t>(sampleRate()));
        chunk.appendInt(static_cast<std::int32_t>(blockAlign * sampleRate()));
        chunk.appendShort(blockAlign);
        chunk.appendShort(static_cast<std::int16_t>(bitDepth()));
        if (!chunk.appendToFile(error)) {
            return false;
        }
        chunk.reset();
        chunk.setType(kro::fourCC("data"));
        if (!chunk.appendToFile(error) || !fileWriter_->getPosition(audioDataPosition_, error)) {
            return false;
        }
        dataChunkSizePosition_ = audioDataPosition_ - 4;
        return true;
    }

    bool writeAudio(const KROAudioBufferList& buffer, KROErrorPtr* error = nullptr) override {
        return writeLinearAudio(buffer, error);
    }

    bool endWrite(KROErrorPtr* error = nullptr) override {
        const std::uint64_t bytes = audioDataLengthOfFrames(frames());
        std::uint64_t end = 0;
        const bool done =
            (bytes % 2 == 0 ||
             (fileWriter_->setPositionToEnd(error) && fileWriter_->writeBuffer("", 1, error))) &&
            fileWriter_->setPosition(dataChunkSizePosition_, error) &&
            fileWriter_->writeIntValue(static_cast<std::int32_t>(bytes), error) &&
            fileWriter_->setPositionToEnd(error) && fileWriter_->getPosition(end, error) &&
            fileWriter_->setPosition(4, error) &&
            fileWriter_->writeIntValue(static_cast<std::int32_t>(end - 8), error) &&
            fileWriter_->flush(error);
        closeFileWriter();
        return done;
    }

protected:
    std::uint64_t maximumAudioDataLength() const override { return sizeLimit; }
    KROErrorPtr errorWithCode(std::int64_t code, const std::string& action) const override {
        return KROAudioFileWAVEContentError::errorWithCode(code, action);
    }
};
