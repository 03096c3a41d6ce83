#include "KROPasteboard.h"

#include <mutex>

namespace {

struct HostSlot {
    std::mutex lock;
    KROPasteboard::Host host;
};

HostSlot& hostSlot() {
    static HostSlot slot;
    return slot;
}

KROPasteboard::Host currentHost() {
    HostSlot& slot = hostSlot();
    std::lock_guard guard(slot.lock);
    return slot.host;
}

} // namespace

void KROPasteboard::setHost(Host host) {
    HostSlot& slot = hostSlot();
    std::lock_guard guard(slot.lock);
    slot.host = std::move(host);
}

bool KROPasteboard::writeObjects(
    const std::vector<std::shared_ptr<KROPasteboardWriting>>& objects) {
    const Host host = currentHost();
    if (!host.writeItems) {
        return false;
    }
    std::vector<KROPasteboardItem> items;
    for (const auto& object : objects) {
        for (const std::string& type : object->writableTypesForPasteboard()) {
            if (auto data = object->pasteboardPropertyListForType(type)) {
                items.push_back({type, std::move(*data)});
                break;
            }
        }
    }
    return host.writeItems(items);
}

std::vector<KROPasteboardItem> KROPasteboard::items() {
    const Host host = currentHost();
    return host.readItems ? host.readItems() : std::vector<KROPasteboardItem>{};
}
