#include "KROAudioFileReader.h"

#include <algorithm>

bool KROAudioFileReader::initWithURL(const std::filesystem::path& url, KROErrorPtr* error) {
    const auto contentClass = KROAudioFileContent::fileContentClassAtURL(url, error);
    if (!contentClass) {
        return false;
    }
    auto content = contentClass->makeContent();
    if (!content) {
        return false;
    }
    content->setURL(url);
    if (error) {
        error->reset();
    }
    if (!content->parse(error)) {
        return false;
    }
    fileContent_ = std::move(content);
    return true;
}

std::shared_ptr<KROAudioFileReader>
KROAudioFileReader::readerWithURL(const std::filesystem::path& url, KROErrorPtr* error) {
    auto reader = std::make_shared<KROAudioFileReader>();
    return reader->initWithURL(url, error) ? reader : nullptr;
}

void KROAudioFileReader::initWithFileContent(std::shared_ptr<KROAudioFileContent> fileContent) {
    fileContent_ = std::move(fileContent);
    readBuffer_.reset();
}

double KROAudioFileReader::length() const {
    const double rate = sampleRate();
    return rate == 0.0 ? 0.0 : static_cast<double>(frames()) / rate;
}

bool KROAudioFileReader::fillReadBuffer(std::uint64_t frame, KROErrorPtr* error) {
    if (!readBuffer_) {
        readBuffer_ = KROAudioBufferList::bufferListWithChannels(
            static_cast<std::uint32_t>(numberOfChannels()),
            static_cast<std::uint64_t>(sampleRate()), error);
        if (!readBuffer_) {
            return false;
        }
    }
    readBuffer_->setFrames(readBuffer_->frameCapacity());
    if (!fileContent_->getAudio(*readBuffer_, frame, error)) {
        readBuffer_->setRange(NSMakeLongRange(0, 0));
        return false;
    }
    readBuffer_->setRange(NSMakeLongRange(frame, readBuffer_->frames()));
    return true;
}

bool KROAudioFileReader::getAudio(KROAudioBufferList& buffer, std::int64_t frame,
                                  KROErrorPtr* error) {
    buffer.clear();
    const auto total = static_cast<std::int64_t>(frames());
    const auto wanted = static_cast<std::int64_t>(buffer.frames());
    if (frame >= total || frame + wanted < 0) {
        return true;
    }
    std::int64_t left = frame < 0 ? wanted + frame : wanted;
    std::int64_t position = std::max<std::int64_t>(frame, 0);
    left = std::min(left, total - position);
    std::uint64_t destination = frame < 0 ? static_cast<std::uint64_t>(-frame) : 0;
    while (left > 0) {
        const NSLongRange cached = readBuffer_ ? readBuffer_->range() : NSMakeLongRange(0, 0);
        const auto p = static_cast<std::uint64_t>(position);
        if (p - cached.location >= cached.length) {
            if (!fillReadBuffer(p, error)) {
                return false;
            }
        }
        const NSLongRange range = readBuffer_->range();
        const std::uint64_t offset = p - range.location;
        if (offset >= range.length) {
            // The handler gave nothing at a frame inside the file: it shrank.
            return true;
        }
        const auto count =
            std::min<std::int64_t>(static_cast<std::int64_t>(range.length - offset), left);
        if (!buffer.copyFrames(NSMakeLongRange(offset, static_cast<std::uint64_t>(count)),
                               *readBuffer_, destination, error)) {
            return false;
        }
        left -= count;
        position += count;
        destination += static_cast<std::uint64_t>(count);
    }
    return true;
}
