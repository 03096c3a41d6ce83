// File name schemes: names built and taken apart, and the user's list in the preferences.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "KROAudioFilenameSchemes.h"
#include "KROLog.h"

namespace {

namespace fs = std::filesystem;
using Parts = std::optional<KROAudioFilenameParts>;

Parts parts(const char* name, std::optional<std::string> abbreviation,
            std::optional<std::string> extension) {
    return KROAudioFilenameParts{name, std::move(abbreviation), std::move(extension)};
}

std::vector<std::string> expressionsOf(const KROAudioFilenameSchemes& schemes) {
    std::vector<std::string> expressions;
    for (const auto& scheme : schemes.enumeratorOfSchemes()) {
        expressions.push_back(scheme->expression() + (scheme->enabled() ? "" : " (off)") +
                              (scheme->locked() ? " (locked)" : ""));
    }
    return expressions;
}

std::string contentsOf(const fs::path& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// A preference file of its own for each test, removed at the end.
struct ScratchStore {
    ~ScratchStore() { fs::remove_all(folder); }

    const fs::path folder = fs::path(KRO_TEST_BINARY_DIR) / ("schemes-" + std::to_string(getpid()));
    const fs::path path = folder / "defaults.plist";
};

} // namespace

TEST(KROAudioFilenameScheme, NamesAreBuiltFromTheirParts) {
    struct Case {
        const char* expression;
        const char* abbreviation;
        const char* filename;
    };
    const Case cases[] = {
        {"./abbr/./ext/", "L", "take.L.wav"}, {"./abbr/", "L", "take.L"},
        {"-/abbr/./ext/", "L", "take-L.wav"}, {"./ext/(/abbr/)", "L", "take.wav(L)"},
        {"./abbr/./ext/", "", "take..wav"},   {"_/abbr/_/abbr/", "Rs", "take_Rs_Rs"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(KROAudioFilenameScheme::schemeWithExpression(c.expression)
                      ->filenameForName("take", c.abbreviation, "wav"),
                  c.filename);
    }
    EXPECT_EQ(KROAudioFilenameScheme::schemeWithExpression("./abbr/./ext/")
                  ->descriptionWithExtension("aif"),
              "Filename.*.aif");
}

TEST(KROAudioFilenameScheme, NamesAreTakenApartFromTheEnd) {
    struct Case {
        const char* expression;
        const char* filename;
        Parts expected;
    };
    const Case cases[] = {
        {"./abbr/./ext/", "take.LC.wav", parts("take", "LC", "wav")},
        // Tokens match without case and give the list's form.
        {"./abbr/./ext/", "take.lc.WAV", parts("take", "LC", "wav")},
        {"./abbr/./ext/", "my.take.LFE.w64", parts("my.take", "LFE", "w64")},
        {"./abbr/./ext/", "take.X.wav", std::nullopt},
        {"./abbr/./ext/", "take.L.mp3", std::nullopt},
        // "aif" is tried first and fails on the last letters.
        {"./ext/", "a.aiff", parts("a", std::nullopt, "aiff")},
        {"./ext/(/abbr/)", "take.wav(Ls)", parts("take", "LS", "wav")},
        {"./abbr/", "take.L", parts("take", "L", std::nullopt)},
        // Literal characters match with case.
        {"_A/abbr/", "take_aL", std::nullopt},
        {"-/abbr/./ext/", "take.L.wav", std::nullopt},
        // A name shorter than the literal tail: an empty name and what matched.
        {"-take./ext/", "e.wav", parts("", std::nullopt, "wav")},
        {"", "take.wav", parts("take.wav", std::nullopt, std::nullopt)},
        {"./abr/", "take.L", std::nullopt},
        {"/ext/", "wav", parts("", std::nullopt, "wav")},
        {"/", "take/", std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.expression) + " on " + c.filename);
        EXPECT_EQ(
            KROAudioFilenameScheme::schemeWithExpression(c.expression)->parseFilename(c.filename),
            c.expected);
    }
}

TEST(KROAudioFilenameScheme, PropertiesAreReadWhenPresentAndAlwaysWritten) {
    KROPropertyList properties;
    properties.setObjectForKey("expression", "_/abbr/");
    const auto scheme = KROAudioFilenameScheme::schemeWithProperties(properties);
    EXPECT_FALSE(scheme->enabled() || scheme->locked());
    EXPECT_EQ(scheme->properties().allKeys(),
              (std::vector<std::string>{"expression", "enabled", "locked"}));
}

TEST(KROAudioFilenameSchemes, TheBuiltInSchemesStandUntilTheUserHasAList) {
    const ScratchStore store;
    KROUserDefaults defaults(store.path);
    KROAudioFilenameSchemes schemes(defaults);
    EXPECT_EQ(expressionsOf(schemes),
              (std::vector<std::string>{"./abbr/ (locked)", "-/abbr/./ext/ (locked)",
                                        "./abbr/./ext/ (locked)", "./ext/(/abbr/) (locked)"}));
    const std::pair<const char*, const char*> lookups[] = {
        {"take.L.wav", "./abbr/./ext/"},    {"take-R.aif", "-/abbr/./ext/"}, {"take.R", "./abbr/"},
        {"take.aiff(C)", "./ext/(/abbr/)"}, {"notes.txt", nullptr},
    };
    for (const auto& [filename, expression] : lookups) {
        const auto scheme = schemes.schemeForFilename(filename);
        EXPECT_EQ(scheme ? scheme->expression() : "none", expression ? expression : "none");
    }
    EXPECT_EQ(schemes.schemeWithExpression("./abbr/"), schemes.objectInSchemesAtIndex(0));
    EXPECT_EQ(schemes.schemeWithExpression("./abbr"), nullptr);
    // An empty expression names no scheme, even when the list holds one.
    schemes.insertObjectInSchemesAtIndex(KROAudioFilenameScheme::schemeWithExpression(""), 4);
    EXPECT_EQ(schemes.schemeWithExpression(""), nullptr);
}

TEST(KROAudioFilenameSchemes, EveryChangeIsWrittenThroughAndTheStoredListReplacesTheDefaults) {
    const ScratchStore store;
    {
        KROUserDefaults defaults(store.path);
        KROAudioFilenameSchemes schemes(defaults);
        schemes.insertObjectInSchemesAtIndex(
            KROAudioFilenameScheme::schemeWithExpression("_/abbr/"), 0);
        schemes.objectInSchemesAtIndex(1)->setEnabled(false);
        schemes.objectInSchemesAtIndex(2)->setExpression("=/abbr/./ext/");
        const auto removed = schemes.objectInSchemesAtIndex(4);
        schemes.removeObjectFromSchemesAtIndex(4);
        schemes.removeObjectFromSchemesAtIndex(9);
        // A scheme out of the list is no longer watched.
        const std::string stored = contentsOf(store.path);
        fs::remove(store.path);
        removed->setExpression("+/abbr/");
        EXPECT_FALSE(fs::exists(store.path));
        std::ofstream(store.path) << stored;
        // The list in use, whichever scheme matches first.
        EXPECT_EQ(schemes.schemeForFilename("take_L")->expression(), "_/abbr/");
        EXPECT_EQ(schemes.schemeForFilename("take=L.wav")->expression(), "=/abbr/./ext/");
    }
    KROUserDefaults reread(store.path);
    const KROAudioFilenameSchemes schemes(reread);
    EXPECT_EQ(expressionsOf(schemes),
              (std::vector<std::string>{"_/abbr/", "./abbr/ (off) (locked)",
                                        "=/abbr/./ext/ (locked)", "./abbr/./ext/ (locked)"}));
}

TEST(KROAudioFilenameSchemes, AStoreThatCannotBeWrittenIsLoggedAndTheListStillWorks) {
    std::vector<std::string> lines;
    KROSetLogSink([&lines](const std::string& line) { lines.push_back(line); });
    KROUserDefaults defaults("/proc/version/defaults.plist");
    KROAudioFilenameSchemes schemes(defaults);
    schemes.insertObjectInSchemesAtIndex(KROAudioFilenameScheme::schemeWithExpression("_/abbr/"),
                                         0);
    KROSetLogSink(nullptr);
    EXPECT_EQ(schemes.schemeForFilename("take_L"), schemes.objectInSchemesAtIndex(0));
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_NE(lines.back().find("failed because"), std::string::npos) << lines.back();
}
