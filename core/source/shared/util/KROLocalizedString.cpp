#include "KROLocalizedString.h"

#include <map>
#include <mutex>

#include "KROPropertyList.h"
#include "KROResources.h"

namespace {

using StringTable = std::map<std::string, std::string, std::less<>>;

StringTable readStringTable(const std::filesystem::path& path) {
    StringTable table;
    const auto list = KROPropertyList::fromFile(path);
    if (!list || !list->isDictionary()) {
        return table;
    }
    for (const auto& [key, value] : *list->dictionaryValue()) {
        if (const std::string* text = value.stringValue()) {
            table.emplace(key, *text);
        }
    }
    return table;
}

// Found once and kept for the life of the process.
const StringTable& libraryTable() {
    static const StringTable table = readStringTable(KROResourcePath("krocore.strings"));
    return table;
}

struct HostTable {
    std::mutex lock;
    StringTable table;
};

HostTable& hostTable() {
    static HostTable host;
    return host;
}

// A lookup that, like the platform's, gives back the key when it is missing.
std::string lookUp(const StringTable& table, std::string_view key) {
    const auto found = table.find(key);
    return found == table.end() ? std::string(key) : found->second;
}

} // namespace

std::string KROLocalizedString(std::string_view key) {
    if (key.empty()) {
        return {};
    }
    std::string text = lookUp(libraryTable(), key);
    if (text != key) {
        return text;
    }
    HostTable& host = hostTable();
    std::lock_guard guard(host.lock);
    return lookUp(host.table, key);
}

std::optional<std::string> KROLocalizedString(std::nullptr_t) {
    return std::nullopt;
}

void KROSetHostStringTablePath(const std::filesystem::path& path) {
    StringTable table = path.empty() ? StringTable{} : readStringTable(path);
    HostTable& host = hostTable();
    std::lock_guard guard(host.lock);
    host.table = std::move(table);
}
