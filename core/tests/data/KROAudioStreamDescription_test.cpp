// Stream descriptions: the working format, byte counts, equality, names, completion.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <limits>

#include "KROAlertCatcher.h"
#include "KROAudioStreamDescription.h"

namespace {

using Record = AudioStreamBasicDescription;
using Description = KROAudioStreamDescription;

bool identical(const Record& a, const Record& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

class OtherObject : public KROObject {
    KRO_DECLARE_CLASS(OtherObject)
};

} // namespace

// Mono non-interleaved float at 44100 Hz; a copy has the same class and fields.
TEST(KROAudioStreamDescription, ANewDescriptionIsTheWorkingFormat) {
    const Record working{44100, KROFourCharCode("lpcm"), 41, 4, 1, 4, 1, 32, 0};
    EXPECT_TRUE(identical(*Description::defaultDescription()->basicDescription(), working));
    Description description;
    description.setBitDepth(8);
    description.initWithSampleRate(48000, 6);
    EXPECT_TRUE(identical(*description.basicDescription(),
                          Record{48000, working.mFormatID, 41, 4, 1, 4, 6, 32, 0}));
    const Record odd{22050.0, kAudioFormatULaw, 12, 3, 5, 7, 9, 11, 13};
    const auto copy = Description::descriptionWithBasicDescription(odd)->copy();
    EXPECT_EQ(copy->className(), "KROAudioStreamDescription");
    EXPECT_TRUE(identical(*copy->basicDescription(), odd));
}

// Linear PCM setters recompute the byte counts (depth / 8, times channels when interleaved).
TEST(KROAudioStreamDescription, LinearPCMKeepsItsByteCountsTrue) {
    const std::tuple<AudioFormatFlags, std::uint64_t, std::uint64_t, std::uint32_t> cases[] = {
        {41, 2, 32, 4},
        {4, 2, 16, 4},
        {12, 2, 24, 6},
        {4, 3, 12, 3},
        {4, (1ull << 32) + 2, (1ull << 33) + 16, 4}};
    for (const auto& [flags, channels, bits, bytes] : cases) {
        Description description;
        description.setFlags(flags);
        description.setNumberOfChannels(channels);
        description.setBitDepth(bits);
        EXPECT_EQ(description.basicDescription()->mBytesPerFrame, bytes) << channels << " " << bits;
        EXPECT_EQ(description.bytesPerPacket(), bytes);
        description.setFormat(kAudioFormatAppleIMA4);
        description.setBitDepth(8);
        description.basicDescription()->mFramesPerPacket = 9;
        description.setNumberOfChannels(5);
        EXPECT_EQ(description.bytesPerPacket(), bytes);
        description.setFormat(kAudioFormatLinearPCM);
        description.basicDescription()->mBytesPerFrame = 77;
        description.setSampleRate(8000);
        EXPECT_EQ(description.basicDescription()->mBytesPerFrame, 77u);
        EXPECT_EQ(description.framesPerPacket(), 9u);
    }
    Description cleared;
    cleared.clear();
    cleared.basicDescription()->mBitsPerChannel = 16;
    cleared.refresh();
    EXPECT_TRUE(identical(*cleared.basicDescription(), Record{0, 0, 0, 0, 0, 0, 0, 16, 0}));
}

// mReserved takes no part; a NaN rate equals nothing; another class never equals.
TEST(KROAudioStreamDescription, EqualityComparesEightFields) {
    const Description working;
    for (const auto field :
         {&Record::mFormatID, &Record::mFormatFlags, &Record::mBytesPerPacket,
          &Record::mFramesPerPacket, &Record::mBytesPerFrame, &Record::mChannelsPerFrame,
          &Record::mBitsPerChannel, &Record::mReserved}) {
        Description other;
        other.basicDescription()->*field += 1;
        EXPECT_EQ(working.isEqualToDescription(other), field == &Record::mReserved);
        EXPECT_EQ(other.isEqual(working), field == &Record::mReserved);
    }
    Description rate, withNaN;
    rate.setSampleRate(48000);
    EXPECT_FALSE(working.isEqual(rate));
    Description reserved;
    reserved.basicDescription()->mReserved = 7;
    EXPECT_EQ(working.hash(), reserved.hash());
    withNaN.setSampleRate(std::numeric_limits<double>::quiet_NaN());
    EXPECT_FALSE(withNaN.isEqual(withNaN));
    EXPECT_FALSE(working.isEqual(OtherObject()));
    EXPECT_FALSE(OtherObject().isEqual(working));
}

TEST(KROAudioStreamDescription, FormatNamesComeFromTheFormatAlone) {
    const std::pair<AudioFormatID, const char*> names[] = {
        {KROFourCharCode("lpcm"), "Linear PCM"},
        {KROFourCharCode("ac-3"), "AC-3"},
        {KROFourCharCode("cac3"), "AC-3"},
        {KROFourCharCode("ulaw"), "\xC2\xB5Law"},
        {0x6d730011, "DVI/Intel IMA ADPCM - ACM code 17"},
        {0, "unknown"}};
    Description description;
    description.setFlags(kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsBigEndian);
    for (const auto& [format, name] : names) {
        description.setFormat(format);
        EXPECT_EQ(description.formatName(), name) << std::hex << format;
    }
    const std::string text = Description().description();
    EXPECT_NE(text.find("'lpcm' (Linear PCM), 44100 Hz"), std::string::npos) << text;
}

// complete() fills the formats it knows; others stay and alert() when an application runs.
TEST(KROAudioStreamDescription, CompleteFillsKnownFormatsAndAlertsForTheRest) {
    const auto in = [](AudioFormatID format, AudioFormatFlags flags, std::uint32_t channels,
                       std::uint32_t bits) {
        return Record{48000, format, flags, 0, 0, 0, channels, bits, 0};
    };
    const AudioFormatID pcm = kAudioFormatLinearPCM, ima4 = kAudioFormatAppleIMA4;
    const std::pair<Record, Record> cases[] = {
        {in(pcm, 4, 2, 20), {48000, pcm, 4, 6, 1, 6, 2, 20, 0}},
        {in(kAudioFormatULaw, 4, 2, 20), {48000, kAudioFormatULaw, 4, 2, 1, 2, 2, 8, 0}},
        {in(ima4, 4, 2, 20), {48000, ima4, 4, 68, 64, 0, 2, 0, 0}},
        {in(kAudioFormatMPEGLayer3, 4, 2, 20),
         {48000, kAudioFormatMPEGLayer3, 4, 0, 1152, 0, 2, 0, 0}},
        {{44100, pcm, 41, 4, 1, 4, 1, 32, 0}, {44100, pcm, 41, 4, 1, 4, 1, 32, 0}},
        {in(KROFourCharCode("QDM2"), 4, 2, 20), {}},
        {in(KROFourCharCode("zzzz"), 4, 2, 20), {}},
        {in(pcm, 41, 2, 16), {}},
        {in(pcm, 4, 2, 0), {}},
        {in(pcm, 4, 2, 65), {}},
        {in(pcm, 4, 0, 16), {}}};
    KROAlertCatcher catcher;
    for (const auto& [before, after] : cases) {
        Description description;
        *description.basicDescription() = before;
        description.complete();
        const bool alerted = after.mFormatID == 0;
        EXPECT_TRUE(identical(*description.basicDescription(), alerted ? before : after))
            << description.description();
        EXPECT_EQ(catcher.alerts.size() && alerted, alerted);
    }
    ASSERT_EQ(catcher.alerts.size(), 6u);
    EXPECT_EQ(catcher.alerts[0]->className(), "KROAudioStreamDescriptionError");
    EXPECT_EQ(catcher.alerts[0]->code(), std::int32_t(KROFourCharCode("fmt?")));
    const std::string reason =
        KROLocalizedString("KROAudioStreamDescriptionError_failureReason_fmt?");
    EXPECT_NE(reason, "KROAudioStreamDescriptionError_failureReason_fmt?");
    EXPECT_EQ(catcher.alerts[0]->description(),
              KROLocalizedString("KROAudioStreamDescription_action_completing") + " " +
                  KROLocalizedString("KROError_conjunction") + " " + reason + ".");
    KROError::setAlertHost({});
    Description quiet;
    quiet.setFormat(KROFourCharCode("zzzz"));
    quiet.complete();
    EXPECT_EQ(quiet.format(), KROFourCharCode("zzzz"));
}
