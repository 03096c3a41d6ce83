// The host's clipboard. The library knows the types and the bytes of what it
// copies; the host moves them to and from its user interface through two
// hooks that it sets. Without a host nothing is written and nothing is read.
// Objects take part through two roles: KROPasteboardWriting gives the bytes
// of an object for a type, KROPasteboardReading makes an object from them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

using KROData = std::vector<std::uint8_t>;

// One thing on the clipboard, in one type.
struct KROPasteboardItem {
    std::string type;
    KROData data;

    bool operator==(const KROPasteboardItem&) const = default;
};

// The role of an object that can be written to the clipboard.
class KROPasteboardWriting {
public:
    virtual ~KROPasteboardWriting() = default;
    virtual std::vector<std::string> writableTypesForPasteboard() const = 0;
    // The bytes for a type, or none for a type the object does not write.
    virtual std::optional<KROData> pasteboardPropertyListForType(const std::string& type) const = 0;
};

// The role of an object that can be read from the clipboard. The class names
// its types with a static readableTypesForPasteboard().
class KROPasteboardReading {
public:
    virtual ~KROPasteboardReading() = default;
    // Fills a new object from the bytes of a type; false when they are not
    // the object's.
    virtual bool initWithPasteboardPropertyList(const KROData& data, const std::string& type) = 0;
};

class KROPasteboard {
public:
    struct Host {
        // Replaces the clipboard's contents; false when the host could not.
        std::function<bool(const std::vector<KROPasteboardItem>&)> writeItems;
        // The clipboard's contents, in order.
        std::function<std::vector<KROPasteboardItem>()> readItems;
    };

    // Any thread; an empty host removes the hooks.
    static void setHost(Host host);

    // One item per object, in the first type that the object writes.
    static bool writeObjects(const std::vector<std::shared_ptr<KROPasteboardWriting>>& objects);
    static std::vector<KROPasteboardItem> items();

    // New objects of the class from every item in a type the class reads.
    template <typename Class> static std::vector<std::shared_ptr<Class>> readObjects() {
        std::vector<std::shared_ptr<Class>> objects;
        const std::vector<std::string> types = Class::readableTypesForPasteboard();
        for (const KROPasteboardItem& item : items()) {
            if (std::find(types.begin(), types.end(), item.type) == types.end()) {
                continue;
            }
            auto object = std::make_shared<Class>();
            if (object->initWithPasteboardPropertyList(item.data, item.type)) {
                objects.push_back(std::move(object));
            }
        }
        return objects;
    }
};
