#include "KRODiskThreads.h"

#include <mutex>

namespace {

// Enough slots for every player of a large session to post its whole ring
// several times before the thread takes one.
constexpr std::size_t kSlots = 1024;

KROSerialQueue* existing(std::once_flag& once, KROSerialQueue*& thread, const char* label,
                         bool create) {
    if (create) {
        std::call_once(once, [&] {
            thread = new KROSerialQueue(label, KROSerialQueue::Priority::high, kSlots);
        });
    }
    return thread;
}

} // namespace

KROSerialQueue* KRODiskThreads::playback(bool create) {
    static std::once_flag once;
    static KROSerialQueue* thread = nullptr;
    return existing(once, thread, "KROAudioFileAudioGeneratorDiskThread", create);
}

KROSerialQueue* KRODiskThreads::recording(bool create) {
    static std::once_flag once;
    static KROSerialQueue* thread = nullptr;
    return existing(once, thread, "KROStreamWriterAudioProcessorDiskThread", create);
}

void KRODiskThreads::drain(KROSerialQueue* thread) {
    if (thread) {
        thread->sync([] {});
    }
}
