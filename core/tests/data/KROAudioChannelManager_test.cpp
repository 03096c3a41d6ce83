// Channel sets: resource layouts in ffmpeg and WAVE mask order, defaults, generic sets.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "KROAudioChannelManager.h"
#include "KROTestCommand.h"

namespace {

namespace fs = std::filesystem;

// Speaker positions of the WAVE channel mask, bit 0 first, in ffmpeg's names.
const std::vector<std::string> kMaskSpeakers{"FL",  "FR",  "FC",  "LFE", "BL",  "BR",
                                             "FLC", "FRC", "BC",  "SL",  "SR",  "TC",
                                             "TFL", "TFC", "TFR", "TBL", "TBC", "TBR"};

// Where a channel of each abbreviation may stand. A surround pair is a side
// or a back pair: 5.1 files come with either.
const std::map<std::string, std::set<std::string>> kPositions{
    {"M", {"FC"}},    {"L", {"FL"}},        {"R", {"FR"}},        {"C", {"FC"}},
    {"LFE", {"LFE"}}, {"Ls", {"BL", "SL"}}, {"Rs", {"BR", "SR"}}, {"Lsb", {"BL"}},
    {"Rsb", {"BR"}},  {"Cs", {"BC"}},       {"Lc", {"FLC"}},      {"Rc", {"FRC"}},
};

// ffmpeg's standard layouts, "5.1" -> "FL+FR+FC+LFE+BL+BR".
std::map<std::string, std::string> ffmpegLayouts() {
    std::map<std::string, std::string> layouts;
    std::istringstream lines(
        KRORunCommand("ffmpeg -hide_banner -layouts | sed -n '/^Standard/,$p' | tail -n +3")
            .output);
    for (std::string name, decomposition; lines >> name >> decomposition;) {
        layouts[name] = decomposition;
    }
    return layouts;
}

// The speakers of the channel mask of a WAVE_FORMAT_EXTENSIBLE file, in
// channel order.
std::vector<std::string> maskSpeakers(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    const std::vector<unsigned char> bytes{std::istreambuf_iterator<char>(in), {}};
    if (bytes.size() < 44 || bytes[20] != 0xFE || bytes[21] != 0xFF) {
        return {};
    }
    const std::uint32_t mask =
        bytes[40] | bytes[41] << 8 | bytes[42] << 16 | static_cast<std::uint32_t>(bytes[43]) << 24;
    std::vector<std::string> speakers;
    for (std::size_t bit = 0; bit < kMaskSpeakers.size(); ++bit) {
        if (mask & (1u << bit)) {
            speakers.push_back(kMaskSpeakers[bit]);
        }
    }
    return speakers;
}

std::vector<std::string> identifiersOf(std::size_t count, KROAudioChannelManager& manager) {
    std::vector<std::string> identifiers;
    for (std::size_t channels = 1; channels <= count; ++channels) {
        identifiers.push_back(manager.setForNumberOfChannels(channels)->identifier());
    }
    return identifiers;
}

} // namespace

TEST(KROAudioChannelManager, LayoutsAgreeWithFfprobeAndTheWAVEChannelMask) {
    const auto layouts = ffmpegLayouts();
    ASSERT_FALSE(layouts.empty()) << "ffmpeg -layouts gave nothing; is ffmpeg installed?";
    const fs::path folder =
        fs::path(KRO_TEST_BINARY_DIR) / ("channels-" + std::to_string(getpid()));
    fs::create_directories(folder);
    std::set<std::string> compared;
    for (const auto& set : KROAudioChannelManager::manager().sets()) {
        const auto layout = layouts.find(set->identifier());
        if (layout == layouts.end()) {
            continue;
        }
        SCOPED_TRACE(set->identifier());
        const fs::path file = folder / (set->identifier() + ".wav");
        ASSERT_EQ(KRORunCommand("ffmpeg -v error -y -f lavfi -i 'anullsrc=channel_layout=" +
                                set->identifier() + ":sample_rate=8000' -t 0.01 -c:a pcm_s24le '" +
                                file.string() + "'")
                      .status,
                  0);
        EXPECT_EQ(KRORunCommand("ffprobe -v error -show_entries stream=channel_layout -of "
                                "csv=p=0 '" +
                                file.string() + "'")
                      .output,
                  set->identifier() + "\n");
        const auto speakers = maskSpeakers(file);
        std::string joined;
        for (const std::string& speaker : speakers) {
            joined += joined.empty() ? "" : "+";
            joined += speaker;
        }
        EXPECT_EQ(joined, layout->second);
        ASSERT_EQ(set->countOfDescriptions(), speakers.size());
        for (std::size_t channel = 0; channel < speakers.size(); ++channel) {
            const std::string abbreviation =
                set->objectInDescriptionsAtIndex(channel)->abbreviation();
            ASSERT_TRUE(kPositions.contains(abbreviation)) << abbreviation;
            EXPECT_TRUE(kPositions.at(abbreviation).contains(speakers[channel]))
                << abbreviation << " is channel " << channel << ", where the file has "
                << speakers[channel];
        }
        compared.insert(set->identifier());
    }
    fs::remove_all(folder);
    for (const char* common : {"mono", "stereo", "quad", "5.1", "7.1"}) {
        EXPECT_TRUE(compared.contains(common)) << common;
    }
}

TEST(KROAudioChannelManager, EachCountHasItsDefaultLayoutAndTextsForPeople) {
    KROAudioChannelManager& manager = KROAudioChannelManager::manager();
    const std::vector<std::string> defaults{"mono", "stereo", "3.0", "quad",
                                            "5.0",  "5.1",    "6.1", "7.1"};
    EXPECT_EQ(identifiersOf(8, manager), defaults);
    EXPECT_EQ(manager.setForNumberOfChannels(2)->name(), "Stereo");
    for (const auto& set : manager.sets()) {
        SCOPED_TRACE(set->identifier());
        EXPECT_EQ(set->name().find("KROAudioChannel"), std::string::npos) << set->name();
        std::set<std::string> abbreviations;
        for (const auto& channel : set->enumeratorOfDescriptions()) {
            EXPECT_EQ(channel->name().find("KROAudioChannel"), std::string::npos);
            EXPECT_TRUE(abbreviations.insert(channel->abbreviation()).second)
                << channel->abbreviation() << " twice";
        }
    }
}

TEST(KROAudioChannelManager, AnUnknownCountGetsOneGenericSetThatIsKept) {
    KROAudioChannelManager& manager = KROAudioChannelManager::manager();
    for (const std::size_t count : {std::size_t{13}, std::size_t{0}}) {
        SCOPED_TRACE(count);
        const std::size_t before = manager.sets().size();
        const auto set = manager.setForNumberOfChannels(count);
        EXPECT_EQ(manager.setForNumberOfChannels(count), set);
        EXPECT_EQ(manager.sets().size(), before + 1);
        EXPECT_EQ(manager.sets().back(), set);
        EXPECT_EQ(set->identifier(), std::to_string(count) + "_channel");
        EXPECT_EQ(set->name(), std::to_string(count) + " Channels");
        ASSERT_EQ(set->countOfDescriptions(), count);
    }
    const auto thirteen = manager.setForNumberOfChannels(13);
    EXPECT_EQ(thirteen->objectInDescriptionsAtIndex(0)->name(), "Channel 1");
    EXPECT_EQ(thirteen->objectInDescriptionsAtIndex(12)->name(), "Channel 13");
    EXPECT_EQ(thirteen->objectInDescriptionsAtIndex(12)->abbreviation(), "13");
    EXPECT_EQ(thirteen->objectInDescriptionsAtIndex(13), nullptr);
}

TEST(KROAudioChannelManager, AbbreviationsFindASetWhateverTheirCaseOrderOrRepeats) {
    struct Case {
        std::vector<std::string> abbreviations;
        const char* identifier;
    };
    const Case cases[] = {
        {{"R", "l"}, "stereo"},
        {{"l", "R", "r"}, "stereo"},
        {{"LS", "rs", "L", "R", "C", "lfe"}, "5.1"},
        {{"L", "R", "LFE"}, "2.1"},
        {{"L", "R", "C", "CS"}, "4.0"},
        {{"L", "X"}, nullptr},
        {{"L", "R", "C", "LFE", "Ls", "Rs", "Lsb"}, nullptr},
    };
    const KROAudioChannelManager& manager = KROAudioChannelManager::manager();
    for (const Case& c : cases) {
        const auto set = manager.setForChannelAbbreviations(c.abbreviations);
        EXPECT_EQ(set ? set->identifier() : "none", c.identifier ? c.identifier : "none");
    }
}
