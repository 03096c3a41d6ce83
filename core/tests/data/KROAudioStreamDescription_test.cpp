// Stream descriptions: the working format, the byte counts kept true for
// linear PCM, equality, names, and completion of what is missing.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <limits>

#include "KROAlertCatcher.h"
#include "KROAudioStreamDescription.h"

namespace {

using Record = AudioStreamBasicDescription;

bool identical(const Record& a, const Record& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

class OtherObject : public KROObject {
    KRO_DECLARE_CLASS(OtherObject)
};

} // namespace

// One channel of non-interleaved 32-bit float at 44100 Hz; the init forms
// start again from it; a copy is of this class with the same nine fields.
TEST(KROAudioStreamDescription, ANewDescriptionIsTheWorkingFormat) {
    const Record working{44100.0, KROFourCharCode("lpcm"), 41, 4, 1, 4, 1, 32, 0};
    EXPECT_TRUE(
        identical(*KROAudioStreamDescription::defaultDescription()->basicDescription(), working));
    KROAudioStreamDescription description;
    description.setBitDepth(8);
    description.initWithSampleRate(48000, 6);
    Record expected = working;
    expected.mSampleRate = 48000;
    expected.mChannelsPerFrame = 6;
    EXPECT_TRUE(identical(*description.basicDescription(), expected));
    const Record odd{22050.0, kAudioFormatULaw, 12, 3, 5, 7, 9, 11, 13};
    const auto copy = KROAudioStreamDescription::descriptionWithBasicDescription(odd)->copy();
    EXPECT_EQ(copy->className(), "KROAudioStreamDescription");
    EXPECT_TRUE(identical(*copy->basicDescription(), odd));
}

// For linear PCM each setter but the rate recomputes bytes per frame and per
// packet from depth / 8 (remainder dropped), times the channels when
// interleaved; frames per packet and other formats are left alone.
TEST(KROAudioStreamDescription, LinearPCMKeepsItsByteCountsTrue) {
    struct Case {
        const char* what;
        std::function<void(KROAudioStreamDescription&)> change;
        std::uint32_t bytesPerFrame, bytesPerPacket, framesPerPacket;
    };
    const auto interleaved = [](std::uint32_t flags, std::uint64_t channels, std::uint64_t bits) {
        return [=](KROAudioStreamDescription& d) {
            d.setFlags(flags);
            d.setNumberOfChannels(channels);
            d.setBitDepth(bits);
        };
    };
    const Case cases[] = {
        {"non-interleaved stereo", [](auto& d) { d.setNumberOfChannels(2); }, 4, 4, 1},
        {"16-bit stereo", interleaved(kAudioFormatFlagIsSignedInteger, 2, 16), 4, 4, 1},
        {"24-bit stereo", interleaved(kAudioFormatFlagIsSignedInteger | 8, 2, 24), 6, 6, 1},
        {"12 bits drop the remainder", interleaved(kAudioFormatFlagIsSignedInteger, 3, 12), 3, 3,
         1},
        {"stored in 32 bits", interleaved(0, (1ull << 32) + 2, (1ull << 33) + 16), 4, 4, 1},
        {"ima4 keeps the earlier counts",
         [&](auto& d) {
             interleaved(kAudioFormatFlagIsSignedInteger, 2, 24)(d);
             d.setFormat(kAudioFormatAppleIMA4);
             d.setBitDepth(16);
             d.setNumberOfChannels(1);
         },
         6, 6, 1},
        {"frames per packet untouched",
         [](auto& d) {
             d.basicDescription()->mFramesPerPacket = 9;
             d.setBitDepth(16);
         },
         2, 2, 9},
        {"the rate refreshes nothing",
         [](auto& d) {
             d.basicDescription()->mBytesPerFrame = 77;
             d.setSampleRate(8000);
         },
         77, 4, 1},
        {"cleared is no longer linear PCM",
         [](auto& d) {
             d.clear();
             d.basicDescription()->mBitsPerChannel = 16;
             d.refresh();
         },
         0, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        KROAudioStreamDescription description;
        c.change(description);
        EXPECT_EQ(description.basicDescription()->mBytesPerFrame, c.bytesPerFrame);
        EXPECT_EQ(description.bytesPerPacket(), c.bytesPerPacket);
        EXPECT_EQ(description.framesPerPacket(), c.framesPerPacket);
    }
}

// Eight fields take part, mReserved does not; a NaN rate equals nothing; an
// object of another class is never equal.
TEST(KROAudioStreamDescription, EqualityComparesEightFields) {
    const std::function<void(Record&)> changes[] = {
        [](Record& r) { r.mSampleRate = 48000; },   [](Record& r) { r.mFormatID = 1; },
        [](Record& r) { r.mFormatFlags = 9; },      [](Record& r) { r.mBytesPerPacket = 8; },
        [](Record& r) { r.mFramesPerPacket = 2; },  [](Record& r) { r.mBytesPerFrame = 8; },
        [](Record& r) { r.mChannelsPerFrame = 2; }, [](Record& r) { r.mBitsPerChannel = 16; },
    };
    const KROAudioStreamDescription working;
    for (const auto& change : changes) {
        KROAudioStreamDescription other;
        change(*other.basicDescription());
        EXPECT_FALSE(working.isEqualToDescription(other)) << other.description();
        EXPECT_FALSE(other.isEqual(working)) << other.description();
    }
    KROAudioStreamDescription withNaN;
    withNaN.setSampleRate(std::numeric_limits<double>::quiet_NaN());
    EXPECT_FALSE(withNaN.isEqual(withNaN));
    KROAudioStreamDescription reserved;
    reserved.basicDescription()->mReserved = 7;
    EXPECT_TRUE(working.isEqual(reserved));
    EXPECT_EQ(working.hash(), reserved.hash());
    EXPECT_FALSE(working.isEqual(OtherObject()));
    EXPECT_FALSE(OtherObject().isEqual(working));
}

// Fixed English names from the format alone, whatever the flags; "unknown"
// for any other format, a cleared one included.
TEST(KROAudioStreamDescription, FormatNamesComeFromTheFormatAlone) {
    const std::pair<AudioFormatID, const char*> names[] = {
        {KROFourCharCode(".mp1"), "MPEG-1/2, Layer 1"},
        {KROFourCharCode(".mp2"), "MPEG-1/2, Layer 2"},
        {KROFourCharCode(".mp3"), "MPEG-1/2, Layer 3"},
        {KROFourCharCode("AUDB"), "Audible Book"},
        {KROFourCharCode("MAC3"), "MACE 3:1"},
        {KROFourCharCode("MAC6"), "MACE 6:1"},
        {KROFourCharCode("QDM2"), "QDesign2 music"},
        {KROFourCharCode("QDMC"), "QDesign music"},
        {KROFourCharCode("Qclp"), "QUALCOMM PureVoice"},
        {KROFourCharCode("aac "), "AAC"},
        {KROFourCharCode("aach"), "MPEG-4 High Efficiency AAC"},
        {KROFourCharCode("aacl"), "MPEG-4 AAC Low Delay"},
        {KROFourCharCode("aacp"), "MPEG-4 High Efficiency AAC Version 2"},
        {KROFourCharCode("aacs"), "MPEG-4 Spatial"},
        {KROFourCharCode("ac-3"), "AC-3"},
        {KROFourCharCode("aes3"), "AES3-2003"},
        {KROFourCharCode("alac"), "Apple Lossless"},
        {KROFourCharCode("alaw"), "aLaw"},
        {KROFourCharCode("cac3"), "AC-3"},
        {KROFourCharCode("celp"), "MPEG-4 CELP"},
        {KROFourCharCode("hvxc"), "MPEG-4 HVXC"},
        {KROFourCharCode("ilbc"), "iLBC"},
        {KROFourCharCode("ima4"), "IMA 4:1 ADPCM"},
        {KROFourCharCode("lpcm"), "Linear PCM"},
        {0x6d730011, "DVI/Intel IMA ADPCM - ACM code 17"},
        {0x6d730031, "Microsoft GSM 6.10 - ACM code 49"},
        {KROFourCharCode("samr"), "AMR Narrow Band"},
        {KROFourCharCode("twvq"), "MPEG-4 TwinVQ"},
        {KROFourCharCode("ulaw"), "\xC2\xB5Law"},
        {KROFourCharCode("flac"), "unknown"},
        {0, "unknown"},
    };
    KROAudioStreamDescription description;
    description.setFlags(kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsBigEndian);
    for (const auto& [format, name] : names) {
        description.setFormat(format);
        EXPECT_EQ(description.formatName(), name) << std::hex << format;
    }
    description.clear();
    EXPECT_EQ(description.formatName(), "unknown");
    const std::string text = KROAudioStreamDescription().description();
    EXPECT_NE(text.find("'lpcm' (Linear PCM), 44100 Hz"), std::string::npos) << text;
}

// complete() fills what is missing for the formats it knows: frames and bytes
// per packet, bits for the companded ones; a present byte count stays.
TEST(KROAudioStreamDescription, CompleteFillsThePacketsOfKnownFormats) {
    struct Case {
        AudioFormatID format;
        std::uint32_t bits, framesPerPacket, bytesPerPacket, bytesPerFrame;
    };
    const Case cases[] = {
        {kAudioFormatLinearPCM, 20, 1, 6, 6},     {kAudioFormatULaw, 8, 1, 2, 2},
        {kAudioFormatALaw, 8, 1, 2, 2},           {kAudioFormatAppleIMA4, 0, 64, 68, 0},
        {kAudioFormatMPEGLayer3, 0, 1152, 0, 0},  {kAudioFormatMPEGLayer2, 0, 1152, 0, 0},
        {kAudioFormatMPEGLayer1, 0, 384, 0, 0},   {kAudioFormatMPEG4AAC, 0, 1024, 0, 0},
        {kAudioFormatMPEG4AAC_HE, 0, 2048, 0, 0}, {kAudioFormatAppleLossless, 0, 4096, 0, 0},
        {kAudioFormatAC3, 0, 1536, 0, 0},         {kAudioFormatMACE3, 0, 6, 4, 0},
    };
    KROAlertCatcher catcher;
    for (const Case& c : cases) {
        SCOPED_TRACE(std::hex);
        SCOPED_TRACE(c.format);
        KROAudioStreamDescription description;
        description.clear();
        *description.basicDescription() =
            Record{48000, c.format, kAudioFormatFlagIsSignedInteger, 0, 0, 0, 2, 20, 0};
        description.complete();
        const Record& record = *description.basicDescription();
        EXPECT_EQ(record.mBitsPerChannel, c.bits);
        EXPECT_EQ(record.mFramesPerPacket, c.framesPerPacket);
        EXPECT_EQ(record.mBytesPerPacket, c.bytesPerPacket);
        EXPECT_EQ(record.mBytesPerFrame, c.bytesPerFrame);
        EXPECT_EQ(record.mSampleRate, 48000);
    }
    KROAudioStreamDescription working;
    working.complete();
    EXPECT_TRUE(working.isEqual(KROAudioStreamDescription()));
    EXPECT_TRUE(catcher.alerts.empty());
}

// A format it cannot fill keeps its record and shows an error through alert(),
// and nothing when no application is running.
TEST(KROAudioStreamDescription, CompleteOfAnUnknownFormatAlertsAndKeepsTheRecord) {
    const std::function<void(Record&)> changes[] = {
        [](Record& r) { r.mFormatID = KROFourCharCode("QDM2"); },
        [](Record& r) { r.mFormatID = KROFourCharCode("ilbc"); },
        [](Record& r) { r.mFormatID = KROFourCharCode("zzzz"); },
        [](Record& r) { r.mBitsPerChannel = 0; },
        [](Record& r) { r.mBitsPerChannel = 65; },
        [](Record& r) { r.mBitsPerChannel = 16; }, // a float of 16 bits
        [](Record& r) { r.mChannelsPerFrame = 0; },
    };
    KROAlertCatcher catcher;
    for (const auto& change : changes) {
        KROAudioStreamDescription description;
        change(*description.basicDescription());
        description.basicDescription()->mBytesPerFrame = 0;
        const Record before = *description.basicDescription();
        description.complete();
        EXPECT_TRUE(identical(*description.basicDescription(), before))
            << description.description();
    }
    ASSERT_EQ(catcher.alerts.size(), std::size(changes));
    const auto& alert = catcher.alerts.front();
    EXPECT_EQ(alert->className(), "KROAudioStreamDescriptionError");
    EXPECT_EQ(alert->code(), static_cast<std::int32_t>(KROFourCharCode("fmt?")));
    const std::string reason =
        KROLocalizedString("KROAudioStreamDescriptionError_failureReason_fmt?");
    EXPECT_NE(reason, "KROAudioStreamDescriptionError_failureReason_fmt?");
    EXPECT_EQ(alert->description(),
              KROLocalizedString("KROAudioStreamDescription_action_completing") + " " +
                  KROLocalizedString("KROError_conjunction") + " " + reason + ".");
}
