#include "KROAudioFileAudioGenerator.h"

#include <sys/statfs.h>

#include <algorithm>
#include <cmath>

#include "KROAudioConnection.h"
#include "KROAudioStreamRenderInfo.h"
#include "KROClassRegistry.h"
#include "KROConductorAudioProcessor.h"
#include "KRODiskThreads.h"
#include "KROErrorFamilies.h"

KRO_REGISTER_CLASS(KROAudioFileAudioGenerator, KROAudioGenerator)

namespace {

constexpr const char* kAudioFileURL = "audioFileURL";
constexpr const char* kAntiClickOnStart = "antiClickOnStart";
constexpr const char* kAntiClickOnStop = "antiClickOnStop";

constexpr double kLocalReadAhead = 1.0;
constexpr double kRemoteReadAhead = 10.0;

struct LoadRequest {
    KROAudioFileAudioGenerator* generator;
    KROAudioFileAudioGeneratorPlaybackBuffer* buffer;
};

void runLoad(void* /*context*/, const void* payload) {
    const auto& request = *static_cast<const LoadRequest*>(payload);
    request.generator->loadPlaybackBuffer(request.buffer);
}

// Whether the file lies on a disk of this machine; network and user-space
// file systems, and an unanswered question, count as remote.
bool isOnLocalVolume(const std::filesystem::path& url) {
    struct statfs info {};
    if (url.empty() || statfs(url.c_str(), &info) != 0) {
        return false;
    }
    constexpr long remoteTypes[] = {
        0x6969,     // NFS
        0x517B,     // SMB
        0xFE534D42, // SMB2
        0xFF534D42, // CIFS
        0x65735546, // FUSE
        0x01021997, // 9P
    };
    return std::none_of(std::begin(remoteTypes), std::end(remoteTypes),
                        [&](long type) { return static_cast<long>(info.f_type) == type; });
}

bool contains(const KROBufferList& buffer, std::int64_t frame) {
    const NSLongRange range = buffer.range();
    return static_cast<std::uint64_t>(frame) - range.location < range.length;
}

} // namespace

KROAudioFileAudioGenerator::~KROAudioFileAudioGenerator() {
    if (playbackBuffer_[0]) {
        waitForDiskThread();
    }
}

bool KROAudioFileAudioGenerator::setSettings(const KROPropertyList& settings, KROErrorPtr* error) {
    if (!KROAudioGenerator::setSettings(settings, error)) {
        return false;
    }
    if (const KROPropertyList* value = settings.objectForKey(kAntiClickOnStart);
        value && value->isBoolean()) {
        antiClickOnStart_ = value->boolValue();
    }
    if (const KROPropertyList* value = settings.objectForKey(kAntiClickOnStop);
        value && value->isBoolean()) {
        antiClickOnStop_ = value->boolValue();
    }
    return applyAudioFileSettings(settings, error);
}

bool KROAudioFileAudioGenerator::applyAudioFileSettings(const KROPropertyList& settings,
                                                        KROErrorPtr* error) {
    const KROPropertyList* value = settings.objectForKey(kAudioFileURL);
    if (!value || !value->isString()) {
        return true;
    }
    auto reader = KROAudioFileReader::readerWithURL(*value->stringValue(), error);
    if (!reader) {
        return false;
    }
    setAudioFile(std::move(reader));
    return true;
}

KROPropertyList KROAudioFileAudioGenerator::settings() const {
    KROPropertyList settings = KROAudioGenerator::settings();
    if (audioFile_) {
        settings.setObjectForKey(kAudioFileURL, audioFile_->URL().string());
    }
    settings.setObjectForKey(kAntiClickOnStart, antiClickOnStart_);
    settings.setObjectForKey(kAntiClickOnStop, antiClickOnStop_);
    return settings;
}

void KROAudioFileAudioGenerator::setAudioFile(std::shared_ptr<KROAudioFileReader> audioFile) {
    if (audioFile == audioFile_) {
        return;
    }
    {
        const std::lock_guard guard(audioFileLock_);
        audioFile_.swap(audioFile);
    }
    playbackBufferLength_ =
        audioFile_ && isOnLocalVolume(audioFile_->URL()) ? kLocalReadAhead : kRemoteReadAhead;
}

std::uint64_t KROAudioFileAudioGenerator::capacity() const {
    return playbackBuffer_[0] ? playbackBuffer_[0]->frameCapacity() : 0;
}

bool KROAudioFileAudioGenerator::initializeForRender(KROErrorPtr* error) {
    if (!audioFile_ || audioFile_->numberOfChannels() == 0) {
        return true;
    }
    const KROAudioConnection* output = outputConnection();
    const std::uint64_t channels = output ? output->numberOfChannels() : 0;
    if (audioFile_->numberOfChannels() != channels) {
        return KROFailWithFormat<KROAudioFileAudioGeneratorError>(
            error, 1, "KROAudioProcessor_action_initializeForRender", identifier());
    }
    const auto frames = static_cast<std::uint64_t>(output->sampleRate() * playbackBufferLength_);
    const auto channelCount = static_cast<std::uint32_t>(channels);
    for (auto& buffer : playbackBuffer_) {
        buffer = Buffer::playbackBufferWithChannels(channelCount,
                                                    std::max<std::uint64_t>(frames, 1), error);
        if (!buffer) {
            uninitialize();
            return false;
        }
    }
    loadBuffer_ = KROAudioBufferList::bufferListWithChannels(channelCount, capacity(), error);
    if (!loadBuffer_) {
        uninitialize();
        return false;
    }
    lastRunningState_ = false;
    return true;
}

bool KROAudioFileAudioGenerator::reset(KROErrorPtr* /*error*/) {
    for (const auto& buffer : playbackBuffer_) {
        if (buffer) {
            buffer->relocate(NSMakeLongRange(0, 0));
        }
    }
    return true;
}

bool KROAudioFileAudioGenerator::uninitialize(KROErrorPtr* /*error*/) {
    waitForDiskThread();
    for (auto& buffer : playbackBuffer_) {
        buffer.reset();
    }
    loadBuffer_.reset();
    return true;
}

KROAudioFileAudioGeneratorPlaybackBuffer*
KROAudioFileAudioGenerator::playbackBufferForRole(std::string_view role) const {
    for (const auto& buffer : playbackBuffer_) {
        if (buffer && buffer->hasRole(role)) {
            return buffer.get();
        }
    }
    return nullptr;
}

KROAudioFileAudioGeneratorPlaybackBuffer*
KROAudioFileAudioGenerator::playbackBufferForFrame(std::int64_t frame) const {
    for (const auto& buffer : playbackBuffer_) {
        if (buffer && contains(*buffer, frame)) {
            return buffer.get();
        }
    }
    return nullptr;
}

void KROAudioFileAudioGenerator::asynchronouslyLoadPlaybackBuffer(Buffer* buffer) {
    if (!buffer) {
        return;
    }
    // A full queue drops the load: the buffer plays as silence until the
    // playhead misses the ring and lays it out anew.
    KRODiskThreads::playback()->async(runLoad, nullptr, LoadRequest{this, buffer});
}

void KROAudioFileAudioGenerator::loadPlaybackBuffer(Buffer* buffer) {
    if (!buffer) {
        return;
    }
    const std::lock_guard fileGuard(audioFileLock_);
    const std::lock_guard bufferGuard(*buffer);
    const std::uint64_t generation = buffer->generation();
    if (buffer->isReady() || !audioFile_ || !loadBuffer_) {
        return;
    }
    // The slow read goes to the side buffer, so that the ring buffer only
    // ever holds the frames of its range or silence.
    loadBuffer_->setFrames(buffer->frames());
    audioFile_->getAudio(*loadBuffer_, static_cast<std::int64_t>(buffer->loadLocation()));
    // When the range moved on during the read, these frames are not of the
    // new range; they stay unready, and the load posted for the new range
    // replaces them.
    buffer->copyFrames(NSMakeLongRange(0, loadBuffer_->frames()), *loadBuffer_, 0);
    buffer->markReady(generation);
}

void KROAudioFileAudioGenerator::waitForDiskThread() {
    KRODiskThreads::drain(KRODiskThreads::playback(false));
}

bool KROAudioFileAudioGenerator::layOutRing(std::int64_t frame) {
    const std::uint64_t length = capacity();
    const std::uint64_t start =
        frame > 0 && length < static_cast<std::uint64_t>(frame) ? std::uint64_t(frame) - length : 0;
    for (std::size_t index = 0; index < playbackBuffer_.size(); ++index) {
        playbackBuffer_[index]->relocate(NSMakeLongRange(start + index * length, length));
    }
    return contains(*playbackBuffer_[0], frame);
}

void KROAudioFileAudioGenerator::prepareForPlaybackFromLocation(double seconds) {
    const KROAudioConnection* output = outputConnection();
    const double rate = output ? output->sampleRate() : 0.0;
    prepareForPlaybackFromFrame(static_cast<std::int64_t>(std::llround(seconds * rate)));
}

void KROAudioFileAudioGenerator::prepareForPlaybackFromFrame(std::int64_t frame) {
    if (!playbackBuffer_[0]) {
        return;
    }
    reset();
    const bool head = layOutRing(frame);
    playbackBuffer_[0]->setRole(head ? Buffer::current : Buffer::previous);
    playbackBuffer_[1]->setRole(head ? Buffer::next : Buffer::current);
    playbackBuffer_[2]->setRole(Buffer::next);
    for (const auto& buffer : playbackBuffer_) {
        if (buffer->hasRole(Buffer::current)) {
            loadPlaybackBuffer(buffer.get());
        } else {
            asynchronouslyLoadPlaybackBuffer(buffer.get());
        }
    }
}

void KROAudioFileAudioGenerator::recoverFromMiss(std::int64_t frame) {
    reset();
    const bool head = layOutRing(frame);
    // At the file's head nothing lies behind: two buffers are "next".
    playbackBuffer_[0]->setRole(head ? Buffer::current : Buffer::previous);
    playbackBuffer_[1]->setRole(head ? Buffer::next : Buffer::current);
    playbackBuffer_[2]->setRole(Buffer::next);
    for (const auto& buffer : playbackBuffer_) {
        asynchronouslyLoadPlaybackBuffer(buffer.get());
    }
}

void KROAudioFileAudioGenerator::rotateBackward(Buffer& found) {
    const std::uint64_t length = capacity();
    const NSLongRange range = found.range();
    const std::uint64_t start = length < range.location ? range.location - length : 0;
    Buffer* const before = playbackBufferForFrame(static_cast<std::int64_t>(start));
    Buffer* const next = playbackBufferForRole(Buffer::next);
    Buffer* const current = playbackBufferForRole(Buffer::current);
    if (current) {
        current->setRole(Buffer::next);
    }
    found.setRole(Buffer::current);
    if (next && next != &found) {
        next->setRole(Buffer::previous);
        if (!before) {
            next->relocate(NSMakeLongRange(start, length));
            asynchronouslyLoadPlaybackBuffer(next);
        }
    }
}

std::uint64_t KROAudioFileAudioGenerator::forwardTarget(const Buffer& found) const {
    const NSLongRange range = found.range();
    std::uint64_t target = range.location + range.length;
    if (!conductor_ || !conductor_->isRunning()) {
        return target;
    }
    const double rate = outputConnection()->sampleRate();
    for (std::size_t index = 0; index < conductor_->countOfLandmarks(); ++index) {
        const auto landmark = conductor_->objectInLandmarksAtIndex(index);
        if (!landmark || !landmark->jumpWhenForward()) {
            continue;
        }
        const auto location = static_cast<std::int64_t>(std::llround(landmark->location() * rate));
        if (location <= static_cast<std::int64_t>(target) &&
            static_cast<std::int64_t>(range.location) < location) {
            target = static_cast<std::uint64_t>(
                std::max<long long>(std::llround(landmark->jumpLocation() * rate), 0));
        }
    }
    return target;
}

void KROAudioFileAudioGenerator::rotateForward(Buffer& found) {
    const std::uint64_t target = forwardTarget(found);
    Buffer* refill = playbackBufferForRole(Buffer::previous);
    if (refill == &found) {
        // Played back into what lay behind: the buffer ahead is the one to reuse.
        refill = playbackBufferForRole(Buffer::next);
    }
    Buffer* const current = playbackBufferForRole(Buffer::current);
    if (current && current != &found) {
        current->setRole(Buffer::previous);
    }
    found.setRole(Buffer::current);
    if (refill && refill != &found) {
        refill->relocate(NSMakeLongRange(target, capacity()));
        refill->setRole(Buffer::next);
        asynchronouslyLoadPlaybackBuffer(refill);
    }
}

void KROAudioFileAudioGenerator::copyFromCurrent(KROAudioBufferList& output, std::int64_t frame,
                                                 std::uint64_t frames,
                                                 std::uint64_t position) const {
    const Buffer* const current = playbackBufferForRole(Buffer::current);
    if (!current || !current->isReady()) {
        return;
    }
    const std::uint64_t offset = static_cast<std::uint64_t>(frame) - current->range().location;
    output.copyFrames(NSMakeLongRange(offset, frames), *current, position);
}

void KROAudioFileAudioGenerator::playRealtime(KROAudioBufferList& output, std::int64_t frame,
                                              std::int64_t total,
                                              const KROAudioStreamRenderInfo& info) {
    std::uint64_t remaining = output.frames();
    std::uint64_t position = 0;
    if (frame < 0) {
        // Before the file's start: silence up to frame 0.
        const std::uint64_t before = std::min(static_cast<std::uint64_t>(-frame), remaining);
        remaining -= before;
        position += before;
        frame += static_cast<std::int64_t>(before);
    }
    while (remaining > 0 && frame < total) {
        const Buffer* current = playbackBufferForRole(Buffer::current);
        if (!current || !contains(*current, frame)) {
            Buffer* const found = playbackBufferForFrame(frame);
            if (!found) {
                recoverFromMiss(frame);
            } else if (info.isReverse()) {
                rotateBackward(*found);
            } else {
                rotateForward(*found);
            }
            current = playbackBufferForRole(Buffer::current);
            if (!current || !contains(*current, frame)) {
                return;
            }
        }
        const NSLongRange range = current->range();
        const std::uint64_t offset = static_cast<std::uint64_t>(frame) - range.location;
        const std::uint64_t count = std::min(range.length - offset, remaining);
        copyFromCurrent(output, frame, count, position);
        remaining -= count;
        frame += static_cast<std::int64_t>(count);
        position += count;
    }
}

void KROAudioFileAudioGenerator::render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                                        KROAudioStreamRenderInfo& info) {
    buffer.clear();
    const bool running = info.isRunning();
    if (!running && !lastRunningState_) {
        return;
    }
    const std::int64_t frame = info.sampleTime();
    const auto total = audioFile_ ? static_cast<std::int64_t>(audioFile_->frames()) : 0;
    if (playbackBuffer_[0] && frame < total) {
        if (info.isRealtime()) {
            playRealtime(buffer, frame, total, info);
        } else {
            audioFile_->getAudio(buffer, frame);
        }
        if (info.isRealtime()) {
            if (!lastRunningState_ && running && antiClickOnStart_) {
                buffer.fadeIn();
            } else if (lastRunningState_ && !running && antiClickOnStop_) {
                buffer.fadeOut();
            }
        }
    }
    lastRunningState_ = running;
}
