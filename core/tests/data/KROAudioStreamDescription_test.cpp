// Part 1.3: stream descriptions.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "KROAudioStreamDescription.h"
#include "KROError.h"

namespace {

// Catches what alert() presents for the life of a test.
class AlertCatcher {
public:
    AlertCatcher() {
        KROError::setAlertHost(KROAlertHost{
            [] { return true; },
            [this](std::shared_ptr<const KROError> error) { alerts.push_back(std::move(error)); }});
    }
    ~AlertCatcher() { KROError::setAlertHost({}); }
    AlertCatcher(const AlertCatcher&) = delete;
    AlertCatcher& operator=(const AlertCatcher&) = delete;

    std::vector<std::shared_ptr<const KROError>> alerts;
};

bool recordsAreIdentical(const AudioStreamBasicDescription& a,
                         const AudioStreamBasicDescription& b) {
    return a.mSampleRate == b.mSampleRate && a.mFormatID == b.mFormatID &&
           a.mFormatFlags == b.mFormatFlags && a.mBytesPerPacket == b.mBytesPerPacket &&
           a.mFramesPerPacket == b.mFramesPerPacket && a.mBytesPerFrame == b.mBytesPerFrame &&
           a.mChannelsPerFrame == b.mChannelsPerFrame && a.mBitsPerChannel == b.mBitsPerChannel &&
           a.mReserved == b.mReserved;
}

class OtherObject : public KROObject {
    KRO_DECLARE_CLASS(OtherObject)
};

} // namespace

// ---- Edge cases worth testing ---------------------------------------------

TEST(Part_1_3, SetNumberOfChannels2OnADefaultObjectLeavesBytesPerFrameAt4) {
    KROAudioStreamDescription description;
    description.setNumberOfChannels(2);
    EXPECT_EQ(description.basicDescription()->mBytesPerFrame, 4u);
    EXPECT_EQ(description.basicDescription()->mBytesPerPacket, 4u);
    EXPECT_EQ(description.numberOfChannels(), 2u);
}

TEST(Part_1_3, SetFlags4OnATwoChannelObjectWithBitDepth16GivesBytesPerFrame4AndBytesPerPacket4) {
    const auto description = KROAudioStreamDescription::descriptionWithSampleRate(44100, 2);
    description->setFlags(kAudioFormatFlagIsSignedInteger);
    description->setBitDepth(16);
    EXPECT_EQ(description->basicDescription()->mBytesPerFrame, 4u);
    EXPECT_EQ(description->basicDescription()->mBytesPerPacket, 4u);
    EXPECT_EQ(description->bytesPerPacket(), 4u);
}

TEST(Part_1_3, SetFormatIma4LeavesTheEarlierByteCountsAlone) {
    const auto description = KROAudioStreamDescription::descriptionWithSampleRate(44100, 2);
    description->setFlags(kAudioFormatFlagIsSignedInteger);
    description->setBitDepth(24);
    ASSERT_EQ(description->basicDescription()->mBytesPerFrame, 6u);
    description->setFormat(kAudioFormatAppleIMA4);
    EXPECT_EQ(description->format(), kAudioFormatAppleIMA4);
    EXPECT_EQ(description->basicDescription()->mBytesPerFrame, 6u);
    EXPECT_EQ(description->basicDescription()->mBytesPerPacket, 6u);
    description->setBitDepth(16);
    description->setNumberOfChannels(1);
    EXPECT_EQ(description->basicDescription()->mBytesPerFrame, 6u);
}

TEST(Part_1_3, TwoObjectsThatDifferOnlyInReservedAreEqual) {
    KROAudioStreamDescription a;
    KROAudioStreamDescription b;
    b.basicDescription()->mReserved = 7;
    EXPECT_TRUE(a.isEqualToDescription(b));
    EXPECT_TRUE(a.isEqual(b));
    EXPECT_TRUE(b.isEqual(a));
    EXPECT_EQ(a.hash(), b.hash());
}

TEST(Part_1_3, FormatNameOfAClearedObjectIsUnknown) {
    KROAudioStreamDescription description;
    description.clear();
    EXPECT_EQ(description.formatName(), "unknown");
}

TEST(Part_1_3, AKROAudioStreamDescriptionIsNotEqualToAnyObjectOfAnotherClass) {
    KROAudioStreamDescription description;
    OtherObject other;
    const KROObject plain;
    EXPECT_FALSE(description.isEqual(other));
    EXPECT_FALSE(description.isEqual(plain));
    EXPECT_FALSE(other.isEqual(description));
}

// ---- Data model and interfaces --------------------------------------------

TEST(Part_1_3, ANewDescriptionIsTheWorkingFormat) {
    const auto description = KROAudioStreamDescription::defaultDescription();
    const AudioStreamBasicDescription& record = *description->basicDescription();
    EXPECT_EQ(record.mSampleRate, 44100.0);
    EXPECT_EQ(record.mFormatID, KROFourCharCode("lpcm"));
    EXPECT_EQ(record.mFormatFlags, 41u);
    EXPECT_EQ(record.mBytesPerPacket, 4u);
    EXPECT_EQ(record.mFramesPerPacket, 1u);
    EXPECT_EQ(record.mBytesPerFrame, 4u);
    EXPECT_EQ(record.mChannelsPerFrame, 1u);
    EXPECT_EQ(record.mBitsPerChannel, 32u);
    EXPECT_EQ(record.mReserved, 0u);
    EXPECT_EQ(description->className(), "KROAudioStreamDescription");
}

TEST(Part_1_3, TheFlagValuesAreThePlatforms) {
    EXPECT_EQ(kAudioFormatFlagIsFloat, 1u);
    EXPECT_EQ(kAudioFormatFlagIsBigEndian, 2u);
    EXPECT_EQ(kAudioFormatFlagIsSignedInteger, 4u);
    EXPECT_EQ(kAudioFormatFlagIsPacked, 8u);
    EXPECT_EQ(kAudioFormatFlagIsAlignedHigh, 16u);
    EXPECT_EQ(kAudioFormatFlagIsNonInterleaved, 32u);
    EXPECT_EQ(kAudioFormatLinearPCM, 0x6C70636Du);
    EXPECT_EQ(kAudioFormatULaw, 0x756C6177u);
    EXPECT_EQ(kAudioFormatALaw, 0x616C6177u);
    EXPECT_EQ(sizeof(AudioStreamBasicDescription), 40u);
}

TEST(Part_1_3, InitWithSampleRateSetsTheRateAndTheChannels) {
    KROAudioStreamDescription description;
    description.setBitDepth(8);
    description.initWithSampleRate(48000, 6);
    EXPECT_EQ(description.sampleRate(), 48000.0);
    EXPECT_EQ(description.numberOfChannels(), 6u);
    EXPECT_EQ(description.bitDepth(), 32u);
    EXPECT_EQ(description.basicDescription()->mBytesPerFrame, 4u);
}

TEST(Part_1_3, InitWithBasicDescriptionCopiesAllNineFields) {
    const AudioStreamBasicDescription record{22050.0, kAudioFormatULaw, 12, 3, 5, 7, 9, 11, 13};
    const auto description = KROAudioStreamDescription::descriptionWithBasicDescription(record);
    EXPECT_TRUE(recordsAreIdentical(*description->basicDescription(), record));
    KROAudioStreamDescription other;
    other.initWithBasicDescription(record);
    EXPECT_TRUE(recordsAreIdentical(*other.basicDescription(), record));
}

TEST(Part_1_3, ACopyIsOfClassKROAudioStreamDescriptionWithTheReceiversRecord) {
    const AudioStreamBasicDescription record{96000.0, kAudioFormatLinearPCM, 12, 6, 1, 6, 2, 24, 5};
    const auto description = KROAudioStreamDescription::descriptionWithBasicDescription(record);
    const auto copy = description->copy();
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy.get(), description.get());
    EXPECT_EQ(copy->className(), "KROAudioStreamDescription");
    EXPECT_TRUE(recordsAreIdentical(*copy->basicDescription(), record));
    EXPECT_TRUE(copy->isEqual(*description));
}

TEST(Part_1_3, ClearSetsAllNineFieldsToZeroAndRefreshThenDoesNothing) {
    KROAudioStreamDescription description;
    description.basicDescription()->mReserved = 3;
    description.clear();
    const AudioStreamBasicDescription zero{};
    EXPECT_TRUE(recordsAreIdentical(*description.basicDescription(), zero));
    description.basicDescription()->mBitsPerChannel = 16;
    description.basicDescription()->mChannelsPerFrame = 2;
    description.refresh();
    EXPECT_EQ(description.basicDescription()->mBytesPerFrame, 0u);
    EXPECT_EQ(description.basicDescription()->mBytesPerPacket, 0u);
}

TEST(Part_1_3, RefreshGivesA24BitInterleavedStereoFormat6BytesPerFrame) {
    KROAudioStreamDescription description;
    description.setFlags(kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked);
    description.setNumberOfChannels(2);
    description.setBitDepth(24);
    EXPECT_EQ(description.basicDescription()->mBytesPerFrame, 6u);
    EXPECT_EQ(description.basicDescription()->mBytesPerPacket, 6u);
    EXPECT_EQ(description.framesPerPacket(), 1u);
}

TEST(Part_1_3, RefreshDropsTheRemainderSo12BitAudioHas1BytePerChannel) {
    KROAudioStreamDescription description;
    description.setFlags(kAudioFormatFlagIsSignedInteger);
    description.setBitDepth(12);
    EXPECT_EQ(description.basicDescription()->mBytesPerFrame, 1u);
    description.setNumberOfChannels(3);
    EXPECT_EQ(description.basicDescription()->mBytesPerFrame, 3u);
}

TEST(Part_1_3, RefreshDoesNotTouchFramesPerPacket) {
    KROAudioStreamDescription description;
    description.basicDescription()->mFramesPerPacket = 9;
    description.setBitDepth(16);
    EXPECT_EQ(description.framesPerPacket(), 9u);
}

TEST(Part_1_3, SetSampleRateDoesNotRefresh) {
    KROAudioStreamDescription description;
    description.basicDescription()->mBytesPerFrame = 77;
    description.setSampleRate(8000);
    EXPECT_EQ(description.sampleRate(), 8000.0);
    EXPECT_EQ(description.basicDescription()->mBytesPerFrame, 77u);
}

TEST(Part_1_3, ChannelsAndDepthArePassedIn64BitsAndStoredIn32) {
    KROAudioStreamDescription description;
    description.setNumberOfChannels((std::uint64_t{1} << 32) + 2);
    EXPECT_EQ(description.numberOfChannels(), 2u);
    description.setBitDepth((std::uint64_t{1} << 33) + 16);
    EXPECT_EQ(description.bitDepth(), 16u);
}

TEST(Part_1_3, IsEqualToDescriptionComparesTheEightFields) {
    KROAudioStreamDescription a;
    const auto changed = [&](auto change) {
        KROAudioStreamDescription b;
        change(*b.basicDescription());
        return !a.isEqualToDescription(b);
    };
    EXPECT_TRUE(changed([](AudioStreamBasicDescription& r) { r.mSampleRate = 48000; }));
    EXPECT_TRUE(changed([](AudioStreamBasicDescription& r) { r.mFormatID = kAudioFormatULaw; }));
    EXPECT_TRUE(changed([](AudioStreamBasicDescription& r) { r.mFormatFlags = 9; }));
    EXPECT_TRUE(changed([](AudioStreamBasicDescription& r) { r.mBytesPerPacket = 8; }));
    EXPECT_TRUE(changed([](AudioStreamBasicDescription& r) { r.mFramesPerPacket = 2; }));
    EXPECT_TRUE(changed([](AudioStreamBasicDescription& r) { r.mBytesPerFrame = 8; }));
    EXPECT_TRUE(changed([](AudioStreamBasicDescription& r) { r.mChannelsPerFrame = 2; }));
    EXPECT_TRUE(changed([](AudioStreamBasicDescription& r) { r.mBitsPerChannel = 16; }));
    EXPECT_FALSE(changed([](AudioStreamBasicDescription& r) { r.mReserved = 1; }));
}

TEST(Part_1_3, ANaNRateIsEqualToNothing) {
    KROAudioStreamDescription description;
    description.setSampleRate(std::numeric_limits<double>::quiet_NaN());
    EXPECT_FALSE(description.isEqualToDescription(description));
    EXPECT_FALSE(description.isEqual(*description.copy()));
}

TEST(Part_1_3, BasicDescriptionIsTheObjectsOwnRecord) {
    KROAudioStreamDescription description;
    description.basicDescription()->mChannelsPerFrame = 5;
    EXPECT_EQ(description.numberOfChannels(), 5u);
    EXPECT_EQ(description.basicDescription(), description.basicDescription());
}

TEST(Part_1_3, FormatNameReadsTheTable) {
    const std::vector<std::pair<std::uint32_t, std::string>> table{
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
    for (const auto& [format, name] : table) {
        description.setFormat(format);
        EXPECT_EQ(description.formatName(), name) << std::hex << format;
    }
}

TEST(Part_1_3, FormatNameDoesNotDependOnTheFlags) {
    KROAudioStreamDescription description;
    EXPECT_EQ(description.formatName(), "Linear PCM");
    description.setFlags(kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsBigEndian);
    EXPECT_EQ(description.formatName(), "Linear PCM");
}

TEST(Part_1_3, DescriptionNamesTheFormat) {
    KROAudioStreamDescription description;
    const std::string text = description.description();
    EXPECT_NE(text.find("KROAudioStreamDescription"), std::string::npos) << text;
    EXPECT_NE(text.find("Linear PCM"), std::string::npos) << text;
    EXPECT_NE(text.find("44100"), std::string::npos) << text;
}

// ---- complete (Algorithm 2) ------------------------------------------------

TEST(Part_1_3, CompleteFillsWhatIsMissingForLinearPCM) {
    AlertCatcher catcher;
    KROAudioStreamDescription description;
    description.clear();
    auto& record = *description.basicDescription();
    record.mSampleRate = 48000;
    record.mFormatID = kAudioFormatLinearPCM;
    record.mFormatFlags = kAudioFormatFlagIsSignedInteger;
    record.mChannelsPerFrame = 2;
    record.mBitsPerChannel = 20;
    description.complete();
    EXPECT_TRUE(catcher.alerts.empty());
    EXPECT_EQ(record.mFramesPerPacket, 1u);
    EXPECT_EQ(record.mBytesPerFrame, 6u);
    EXPECT_EQ(record.mBytesPerPacket, 6u);
    EXPECT_EQ(record.mSampleRate, 48000.0);
}

TEST(Part_1_3, CompleteKeepsByteCountsThatAreThere) {
    AlertCatcher catcher;
    KROAudioStreamDescription description;
    description.complete();
    EXPECT_TRUE(catcher.alerts.empty());
    EXPECT_TRUE(description.isEqual(KROAudioStreamDescription()));
}

TEST(Part_1_3, CompleteFillsTheCompandedFormats) {
    AlertCatcher catcher;
    for (const AudioFormatID format : {kAudioFormatULaw, kAudioFormatALaw}) {
        const auto description = KROAudioStreamDescription::descriptionWithSampleRate(8000, 2);
        description->setFlags(0);
        description->setFormat(format);
        description->complete();
        const auto& record = *description->basicDescription();
        EXPECT_EQ(record.mBitsPerChannel, 8u);
        EXPECT_EQ(record.mFramesPerPacket, 1u);
        EXPECT_EQ(record.mBytesPerFrame, 2u);
        EXPECT_EQ(record.mBytesPerPacket, 2u);
    }
    EXPECT_TRUE(catcher.alerts.empty());
}

TEST(Part_1_3, CompleteFillsThePacketsOfTheCompressedFormatsOfTheTable) {
    AlertCatcher catcher;
    const std::vector<std::tuple<AudioFormatID, std::uint32_t, std::uint32_t>> table{
        {kAudioFormatAppleIMA4, 64, 68},
        {kAudioFormatMPEGLayer3, 1152, 0},
        {kAudioFormatMPEGLayer2, 1152, 0},
        {kAudioFormatMPEGLayer1, 384, 0},
        {kAudioFormatMPEG4AAC, 1024, 0},
        {kAudioFormatMPEG4AAC_HE, 2048, 0},
        {kAudioFormatAppleLossless, 4096, 0},
        {kAudioFormatAC3, 1536, 0},
        {kAudioFormatMACE3, 6, 4},
    };
    for (const auto& [format, frames, bytes] : table) {
        const auto description = KROAudioStreamDescription::descriptionWithSampleRate(44100, 2);
        description->setFlags(0);
        description->setFormat(format);
        description->complete();
        EXPECT_EQ(description->framesPerPacket(), frames) << std::hex << format;
        EXPECT_EQ(description->bytesPerPacket(), bytes) << std::hex << format;
        EXPECT_EQ(description->basicDescription()->mBytesPerFrame, 0u);
    }
    EXPECT_TRUE(catcher.alerts.empty());
}

TEST(Part_1_3, CompleteOfAFormatTheTeamCannotFillShowsAnAlertAndKeepsTheRecord) {
    AlertCatcher catcher;
    for (const AudioFormatID format :
         {KROFourCharCode("QDM2"), KROFourCharCode("ilbc"), KROFourCharCode("zzzz")}) {
        const auto description = KROAudioStreamDescription::descriptionWithSampleRate(44100, 2);
        description->setFormat(format);
        const AudioStreamBasicDescription before = *description->basicDescription();
        description->complete();
        EXPECT_TRUE(recordsAreIdentical(*description->basicDescription(), before));
    }
    ASSERT_EQ(catcher.alerts.size(), 3u);
    const auto& alert = catcher.alerts.front();
    EXPECT_EQ(alert->className(), "KROAudioStreamDescriptionError");
    EXPECT_EQ(alert->code(), static_cast<std::int32_t>(KROFourCharCode("fmt?")));
    EXPECT_EQ(alert->failureReason(),
              KROLocalizedString("KROAudioStreamDescriptionError_failureReason_fmt?"));
    const std::string action = KROLocalizedString("KROAudioStreamDescription_action_completing");
    EXPECT_NE(action, "KROAudioStreamDescription_action_completing");
    EXPECT_EQ(alert->description().rfind(action, 0), 0u) << alert->description();
}

TEST(Part_1_3, CompleteOfABrokenLinearPCMRecordShowsAnAlertAndKeepsTheRecord) {
    AlertCatcher catcher;
    for (const std::uint32_t bits : {0u, 65u, 1000u}) {
        KROAudioStreamDescription description;
        description.basicDescription()->mBitsPerChannel = bits;
        description.basicDescription()->mBytesPerFrame = 0;
        const AudioStreamBasicDescription before = *description.basicDescription();
        description.complete();
        EXPECT_TRUE(recordsAreIdentical(*description.basicDescription(), before));
    }
    KROAudioStreamDescription floatOf16Bits;
    floatOf16Bits.setBitDepth(16);
    floatOf16Bits.complete();
    KROAudioStreamDescription noChannels;
    noChannels.setNumberOfChannels(0);
    noChannels.complete();
    EXPECT_EQ(catcher.alerts.size(), 5u);
}

TEST(Part_1_3, CompleteWithNoRunningApplicationShowsNothingAndDoesNotFail) {
    KROError::setAlertHost({});
    KROAudioStreamDescription description;
    description.setFormat(KROFourCharCode("zzzz"));
    description.complete();
    EXPECT_EQ(description.format(), KROFourCharCode("zzzz"));
}
