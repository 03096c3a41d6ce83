// Random property lists built into a stream, initialised, copied and released.
#include <cstddef>
#include <cstdint>

#include "KROAudioProcessor.h"
#include "KROAudioStream.h"
#include "KROPropertyList.h"

namespace {

void exercise(KROAudioStream& stream) {
    KROErrorPtr error;
    if (!stream.initialize(&error) && error) {
        (void)error->localizedDescription();
    }
    (void)stream.isInitialized();
    for (const auto& processor : stream.enumeratorOfProcessors()) {
        (void)processor->copy();
        (void)processor->settings();
    }
    stream.uninitialize(nullptr);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto description = KROPropertyList::fromData(data, size);
    if (!description) {
        return 0;
    }
    KROAudioStream stream;
    KROErrorPtr error;
    if (stream.initWithDescription(*description, &error)) {
        exercise(stream);
    } else if (error) {
        (void)error->localizedDescription();
    }
    // Each entry on its own, as the registry's processorWithSettings reads it.
    if (const KROPropertyList* entries = description->objectForKey("processors")) {
        for (std::size_t index = 0; index < entries->count(); ++index) {
            // An entry list that is no array has no entries to read.
            if (const KROPropertyList* entry = entries->objectAtIndex(index)) {
                (void)KROAudioProcessor::processorWithSettings(*entry, &error);
            }
        }
    }
    return 0;
}
