// Every key the code uses, and every error family, has its text.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "KROErrorFamilies.h"
#include "KROResources.h"

TEST(KROStringTable, EveryKeyTheCodeUsesHasAText) {
    const auto table = KROPropertyList::fromFile(KROResourcePath("krocore.strings"));
    ASSERT_NE(table, nullptr);
    for (const auto& [key, value] : *table->dictionaryValue()) {
        EXPECT_TRUE(value.stringValue() && !value.stringValue()->empty()) << key;
    }
    // A camel-case class name, an underscore and more; not upper-case names.
    const std::regex literal(R"re("((?:KRO|APL)[A-Za-z0-9]*[a-z][A-Za-z0-9]*_[A-Za-z0-9_]+)")re");
    std::size_t keys = 0;
    for (const char* folder : {"core/source", "tools"}) {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(
                 std::filesystem::path(KRO_SOURCE_DIR) / folder)) {
            const std::string extension = entry.path().extension().string();
            if (extension != ".cpp" && extension != ".h" && extension != ".c") {
                continue;
            }
            std::stringstream text;
            text << std::ifstream(entry.path()).rdbuf();
            const std::string source = text.str();
            for (std::sregex_iterator match(source.begin(), source.end(), literal), end;
                 match != end; ++match, ++keys) {
                EXPECT_NE(table->objectForKey((*match)[1].str()), nullptr)
                    << "no text for " << (*match)[1] << " in " << entry.path();
            }
        }
    }
    EXPECT_GT(keys, 3u);
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
