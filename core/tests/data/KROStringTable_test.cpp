// Every key the code uses has a text in core/resources/krocore.strings, and
// every error family its message.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "KROError.h"
#include "KROResources.h"

namespace {

bool isSourceFile(const std::filesystem::path& path) {
    const std::string extension = path.extension().string();
    return extension == ".cpp" || extension == ".h" || extension == ".c";
}

// String literals of the form of a localized key: a class name in camel
// case, an underscore and more ("KROBufferList_action_create", "KROError_ok");
// upper-case names such as environment variables are not keys.
std::set<std::string> keysUsedBySourcesUnder(const std::filesystem::path& root) {
    static const std::regex literal(
        R"re("((?:KRO|APL)[A-Za-z0-9]*[a-z][A-Za-z0-9]*_[A-Za-z0-9_]+)")re");
    std::set<std::string> keys;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        if (!entry.is_regular_file() || !isSourceFile(entry.path())) {
            continue;
        }
        std::ifstream file(entry.path());
        std::stringstream text;
        text << file.rdbuf();
        const std::string source = text.str();
        for (std::sregex_iterator match(source.begin(), source.end(), literal), end; match != end;
             ++match) {
            keys.insert((*match)[1].str());
        }
    }
    return keys;
}

std::set<std::string> keysUsedByTheCode() {
    std::set<std::string> keys;
    for (const char* folder : {"core/source", "tools"}) {
        const auto found = keysUsedBySourcesUnder(std::filesystem::path(KRO_SOURCE_DIR) / folder);
        keys.insert(found.begin(), found.end());
    }
    return keys;
}

std::shared_ptr<KROPropertyList> libraryTable() {
    return KROPropertyList::fromFile(KROResourcePath("krocore.strings"));
}

} // namespace

TEST(KROStringTable, TheTableIsAnXMLPropertyListDictionaryOfStrings) {
    const auto table = libraryTable();
    ASSERT_NE(table, nullptr);
    ASSERT_TRUE(table->isDictionary());
    for (const auto& [key, value] : *table->dictionaryValue()) {
        EXPECT_TRUE(value.isString()) << key;
        EXPECT_FALSE(value.stringValue() && value.stringValue()->empty()) << key;
    }
}

TEST(KROStringTable, EveryKeyTheCodeUsesHasAText) {
    const auto table = libraryTable();
    ASSERT_NE(table, nullptr);
    const auto keys = keysUsedByTheCode();
    EXPECT_GT(keys.size(), 3u);
    for (const std::string& key : keys) {
        EXPECT_NE(table->objectForKey(key), nullptr) << "no text for " << key;
    }
}

TEST(KROStringTable, EveryFamilyHasAMessageAndTheErrorKeysHaveTexts) {
    for (const std::string& family : KROErrorFamilyNames()) {
        EXPECT_NE(KROLocalizedString(family + "_message"), family + "_message");
    }
    for (const char* key : {"KROError_ok", "KROError_conjunction"}) {
        EXPECT_NE(KROLocalizedString(key), key);
    }
    EXPECT_NE(KROLocalizedString("KROError_defaultFailureReason").find("%d"), std::string::npos);
}
