// The label reader on clipboard bytes; the label is then described, copied,
// asked for items and written back.
#include <cstddef>
#include <cstdint>

#include "KROAudioLabel.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const KROData bytes(data, data + size);
    const auto label = std::make_shared<KROAudioLabel>();
    if (!label->initWithPasteboardPropertyList(bytes, KROAudioLabel::pasteboardType)) {
        return 0;
    }
    volatile std::size_t sink = label->description().size() + label->typeName().size();
    for (const auto& item : label->metadata()) {
        sink = sink + item->description().size() + item->title().size();
        sink = sink + label->valueForKey(item->key()).has_value();
    }
    const auto copy = label->copy();
    sink = sink + copy->isEqual(*label) + label->intersectsRange({label->start(), 1.0});
    copy->setValue(KROPropertyList("name"), "name");
    const auto written = label->pasteboardPropertyListForType(KROAudioLabel::pasteboardType);
    const auto again = std::make_shared<KROAudioLabel>();
    sink = sink + (written &&
                   again->initWithPasteboardPropertyList(*written, KROAudioLabel::pasteboardType));
    return 0;
}
