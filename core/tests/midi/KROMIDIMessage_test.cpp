// MIDI messages against wire bytes written out by hand: the class each status
// byte selects, the fields and text forms read from the bytes, the bytes the
// setters write, equality, copies, archives and timestamps.
#include <gtest/gtest.h>

#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "KROMIDISDSMessage.h"
#include "KROMIDISysexMessage.h"
#include "KROMIDISystemMessages.h"
#include "KROMIDIUniversalMessage.h"
#include "KROMIDIVoiceMessage.h"

namespace {

KROData bytesOf(const KROMIDIMessage& message) {
    return KROData(message.bytes(), message.bytes() + message.length());
}

std::shared_ptr<KROMIDIMessage> parsed(const KROData& bytes) {
    return KROMIDIMessage::messageWithData(bytes, 0.0);
}

} // namespace

// Every status byte picks its class; undefined status bytes and data bytes
// make no message. Fixed-length classes also parse from a longer stream,
// taking only their own bytes.
TEST(KROMIDIMessage, StatusBytesSelectTheirClass) {
    struct Case {
        KROData bytes;
        const char* className; // null: no message
    };
    const Case cases[] = {
        // clang-format off
        {{0x80, 0x40, 0x40}, "KROMIDINoteOffMessage"}, {{0x91, 0x40, 0x64}, "KROMIDINoteOnMessage"},
        {{0x90, 0x40, 0x00}, "KROMIDINoteOffMessage"}, {{0xA0, 0x40, 0x20}, "KROMIDIAftertouchMessage"},
        {{0xB3, 0x07, 0x64}, "KROMIDIControllerMessage"}, {{0xC0, 0x05}, "KROMIDIProgramChangeMessage"},
        {{0xDF, 0x30}, "KROMIDIChannelPressureMessage"},
        {{0xE0, 0x00, 0x40}, "KROMIDIPitchWheelMessage"},
        {{0xF0, 0x43, 0x10, 0x4C, 0xF7}, "KROMIDISysexMessage"},
        {{0xF0, 0x7F, 0x7F, 0x01, 0x01, 0x00, 0x00, 0x00, 0x00, 0xF7}, "KROMIDIMTCFullFrameMessage"},
        {{0xF0, 0x7F, 0x7F, 0x06, 0x02, 0xF7}, "KROMIDISysexMessage"},
        {{0xF0, 0x7E, 0x00, 0x01, 0xF7}, "KROMIDISDSHeaderMessage"},
        {{0xF0, 0x7E, 0x00, 0x02, 0xF7}, "KROMIDISDSDataMessage"},
        {{0xF0, 0x7E, 0x00, 0x7C, 0x01, 0xF7}, "KROMIDISDSWaitMessage"},
        {{0xF0, 0x7E, 0x00, 0x7D, 0x01, 0xF7}, "KROMIDISDSCancelMessage"},
        {{0xF0, 0x7E, 0x00, 0x7E, 0x01, 0xF7}, "KROMIDISDSErrorMessage"},
        {{0xF0, 0x7E, 0x00, 0x7F, 0x01, 0xF7}, "KROMIDISDSSuccessMessage"},
        {{0xF0, 0x7E, 0x00, 0x06, 0x01, 0xF7}, "KROMIDISysexMessage"},
        {{0xF0, 0x7E, 0xF7}, "KROMIDISysexMessage"}, {{0xF1, 0x35}, "KROMIDIMTCQuarterFrameMessage"},
        {{0xF2, 0x10, 0x02}, "KROMIDISongPositionMessage"}, {{0xF3, 0x05}, "KROMIDISongSelectMessage"},
        {{0xF6}, "KROMIDITuneRequestMessage"}, {{0xF8}, "KROMIDIClockMessage"},
        {{0xF9}, "KROMIDITickMessage"}, {{0xFA}, "KROMIDIStartMessage"},
        {{0xFB}, "KROMIDIContinueMessage"}, {{0xFC}, "KROMIDIStopMessage"},
        {{0xFE}, "KROMIDIActiveSenseMessage"}, {{0xFF}, "KROMIDIResetMessage"}, {{0xF4}, nullptr},
        {{0xF5}, nullptr}, {{0xF7}, nullptr}, {{0xFD}, nullptr}, {{0x40, 0x40}, nullptr}, {{}, nullptr},
        // clang-format on
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.className ? c.className : "none");
        const auto message = parsed(c.bytes);
        if (!c.className) {
            EXPECT_FALSE(message);
            EXPECT_FALSE(KROMIDIMessage::messageWithBytes(c.bytes.data(), c.bytes.size(), 0.0));
            continue;
        }
        ASSERT_TRUE(message);
        EXPECT_EQ(message->className(), c.className);
        EXPECT_EQ(bytesOf(*message), c.bytes);
        EXPECT_EQ(message->status(), c.bytes[0]);

        KROData stream = c.bytes;
        stream.insert(stream.end(), {0x90, 0x3C, 0x40});
        const auto fixed = KROMIDIMessage::messageWithBytes(stream.data(), stream.size(), 0.0);
        if (message->classOfMessage().length == KROMIDIMessage::kVariableLength) {
            EXPECT_FALSE(fixed);
        } else if (message->classOfMessage().length == std::int64_t(c.bytes.size())) {
            ASSERT_TRUE(fixed);
            EXPECT_EQ(bytesOf(*fixed), c.bytes);
        }
    }
    // A fixed-length message with too few bytes at hand makes none.
    const std::uint8_t cut[] = {0xB0, 0x07};
    EXPECT_FALSE(KROMIDIMessage::messageWithBytes(cut, 2, 0.0));
}

// Fields and text forms read from the bytes: channels count from 1, 14-bit
// values join two 7-bit groups lowest first, log columns keep their widths.
TEST(KROMIDIMessage, TextFormsShowTheFieldsOfTheBytes) {
    struct Case {
        KROData bytes;
        const char* description;
        const char* logDescription;
    };
    const Case cases[] = {
        {{0x93, 0x3C, 0x64},
         "KROMIDINoteOnMessage: note 60, velocity 100",
         "Ch 4   Note On   60   100"},
        {{0x90, 0x40, 0x00},
         "KROMIDINoteOffMessage: note 64, velocity 0",
         "Ch 1   Note Off  64   0  "},
        {{0x8F, 0x40, 0x7F},
         "KROMIDINoteOffMessage: note 64, velocity 127",
         "Ch 16  Note Off  64   127"},
        {{0xA2, 0x3C, 0x50},
         "KROMIDIAftertouchMessage: note 60, velocity 80",
         "Ch 3   Aftrtch   80 "},
        {{0xB0, 0x07, 0x64},
         "KROMIDIControllerMessage: number 7, value 100",
         "Ch 1   Control   7    100"},
        {{0xC5, 0x0A}, "KROMIDIProgramChangeMessage: number 10", "Ch 6   Pgm Chng  10 "},
        {{0xD0, 0x7F}, "KROMIDIChannelPressureMessage", "Ch 1   Chnl Prs  127"},
        {{0xE0, 0x00, 0x40}, "KROMIDIPitchWheelMessage: floatValue 0.000", "Ch 1   PitchWhl  8192"},
        {{0xE1, 0x7F, 0x7F},
         "KROMIDIPitchWheelMessage: floatValue 1.000",
         "Ch 2   PitchWhl  16383"},
        {{0xE0, 0x00, 0x00}, "KROMIDIPitchWheelMessage: floatValue -1.000", "Ch 1   PitchWhl  0  "},
        {{0xE0, 0x00, 0x60},
         "KROMIDIPitchWheelMessage: floatValue 0.500",
         "Ch 1   PitchWhl  12288"},
        {{0xF1, 0x35}, "KROMIDIMTCQuarterFrameMessage", "MTCFrame  53 "},
        {{0xF2, 0x10, 0x02}, "KROMIDISongPositionMessage", "SongPos   272"},
        {{0xF3, 0x05}, "KROMIDISongSelectMessage", "SongSel   5  "},
        {{0xF8}, "KROMIDIClockMessage", "Clock   "},
        {{0xF0, 0x43, 0x10, 0x4C, 0x00, 0xF7}, "KROMIDISysexMessage", "Sysex     (3 bytes)"},
        {{0xF0, 0x00, 0x20, 0x29, 0x01, 0x02, 0xF7}, "KROMIDISysexMessage", "Sysex     (2 bytes)"},
        {{0xF0, 0x7F, 0x7F, 0x01, 0x01, 0x61, 0x3B, 0x3B, 0x1D, 0xF7},
         "KROMIDIMTCFullFrameMessage",
         "MTCFulFr  01:59:59:29"},
        {{0xF0, 0x7E, 0x05, 0x7F, 0x09, 0xF7}, "SDS packet number 9", "Universl  126  5  "},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.description);
        const auto message = parsed(c.bytes);
        ASSERT_TRUE(message);
        EXPECT_EQ(message->description(), c.description);
        EXPECT_EQ(message->logDescription(), c.logDescription);
    }
}

// Manufacturer IDs of one byte and of three (0 then two bytes), where the
// manufacturer's data starts, and packets too short to hold an ID.
TEST(KROMIDISysexMessage, ManufacturerIDsOfOneAndThreeBytes) {
    struct Case {
        KROData bytes;
        std::uint16_t manufacturerID;
        std::int64_t dataLength;
        int firstDataByte; // -1: no data pointer
    };
    const Case cases[] = {
        {{0xF0, 0x43, 0x10, 0x4C, 0xF7}, 0x43, 2, 0x10},
        {{0xF0, 0x00, 0x20, 0x29, 0x01, 0x02, 0xF7}, 0x29 + 0x20 * 128, 2, 0x01},
        {{0xF0, 0x43, 0xF7}, 0x43, 0, 0xF7},
        {{0xF0, 0x00, 0xF7}, 0, 0, -1},
        {{0xF0, 0x43}, 0, 0, -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bytes.size());
        const auto sysex = std::dynamic_pointer_cast<KROMIDISysexMessage>(parsed(c.bytes));
        ASSERT_TRUE(sysex);
        EXPECT_EQ(sysex->manufacturerID(), c.manufacturerID);
        EXPECT_EQ(sysex->sysexDataLength(), c.dataLength);
        if (c.firstDataByte < 0) {
            EXPECT_EQ(sysex->sysexData(), nullptr);
        } else {
            ASSERT_TRUE(sysex->sysexData());
            EXPECT_EQ(*sysex->sysexData(), c.firstDataByte);
        }
    }
}

// The bytes the setters write: 7-bit clamps, channels from 1 (unchecked),
// float values rounded or truncated to the wire, limits of time code fields.
TEST(KROMIDIMessage, SettersWriteExactBytes) {
    using Build = std::function<std::shared_ptr<KROMIDIMessage>()>;
    const KROData fullFrameOfOtherSubID = {0xF0, 0x7E, 0x05, 0x02, 0x02,
                                           0x21, 0x02, 0x03, 0x04, 0x00};
    const std::pair<Build, KROData> cases[] = {
        // clang-format off
        {[] { auto m = KROMIDINoteOnMessage::message(); m->setChannel(16), m->setNote(200), m->setVelocity(127); return m; }, {0x9F, 0x7F, 0x7F}},
        {[] { auto m = KROMIDINoteOnMessage::message(); m->setChannel(0); return m; }, {0x8F, 0x00, 0x00}},
        {[] { auto m = KROMIDIAftertouchMessage::message(); m->setChannel(2), m->setPressure(99); return m; }, {0xA1, 0x00, 0x63}},
        {[] { auto m = KROMIDIControllerMessage::message(); m->setNumber(74), m->setFloatValue(0.5f); return m; }, {0xB0, 0x4A, 0x40}},
        {[] { auto m = KROMIDIControllerMessage::message(); m->setFloatValue(2.0f); return m; }, {0xB0, 0x00, 0x7F}},
        {[] { auto m = KROMIDIProgramChangeMessage::message(); m->setChannel(10), m->setNumber(130); return m; }, {0xC9, 0x7F}},
        {[] { auto m = KROMIDIPitchWheelMessage::message(); m->setFloatValue(0.25f + 0.75f / 8192.0f); return m; }, {0xE0, 0x00, 0x50}},
        {[] { auto m = KROMIDIPitchWheelMessage::message(); m->setFloatValue(1.0f); return m; }, {0xE0, 0x7F, 0x7F}},
        {[] { auto m = KROMIDIPitchWheelMessage::message(); m->setValue(0x6A55); return m; }, {0xE0, 0x55, 0x54}},
        {[] { auto m = KROMIDISongPositionMessage::message(); m->setBeat(272); return m; }, {0xF2, 0x10, 0x02}},
        {[] { return KROMIDIStopMessage::message(); }, {0xFC}},
        {[] { auto m = KROMIDIMTCFullFrameMessage::message(); m->setType(7), m->setHours(30), m->setMinutes(60), m->setSeconds(59), m->setFrames(40); return m; },
         {0xF0, 0x7F, 0x7F, 0x01, 0x01, 0x77, 0x3B, 0x3B, 0x1D, 0xF7}},
        {[] { auto m = KROMIDIMTCFullFrameMessage::message(); m->setRate(2), m->setHours(5), m->setRate(4); return m; },
         {0xF0, 0x7F, 0x7F, 0x01, 0x01, 0x45, 0x00, 0x00, 0x00, 0xF7}},
        {[&] { auto m = std::make_shared<KROMIDIMTCFullFrameMessage>(); m->initWithBytes(fullFrameOfOtherSubID.data(), 10, 0.0); return m; },
         {0xF0, 0x7F, 0x7F, 0x01, 0x01, 0x21, 0x02, 0x03, 0x04, 0xF7}},
        {[] { auto m = parsed({0x90}); std::static_pointer_cast<KROMIDINoteMessage>(m)->setVelocity(5); return m; }, {0x90}},
        // clang-format on
    };
    for (const auto& [build, bytes] : cases) {
        const auto message = build();
        SCOPED_TRACE(message->className());
        EXPECT_EQ(bytesOf(*message), bytes);
    }
    // Getters of fields the packet does not hold answer 0; rest is 0.0 exactly.
    EXPECT_EQ(std::static_pointer_cast<KROMIDIPitchWheelMessage>(parsed({0xE0, 0x7F}))->value(), 0);
    EXPECT_EQ(std::static_pointer_cast<KROMIDIPitchWheelMessage>(parsed({0xE0, 0x00, 0x40}))
                  ->floatValue(),
              0.0f);
    // Variable-length classes make no bare message.
    EXPECT_FALSE(KROMIDISysexMessage::message());
    EXPECT_FALSE(KROMIDISDSSuccessMessage::message());
}

// Equality is on the bytes and the receiver's class, never the timestamp.
TEST(KROMIDIMessage, EqualityFollowsTheReceiversClass) {
    const KROData bytes = {0x90, 0x3C, 0x64};
    const auto noteOn = KROMIDIMessage::messageWithData(bytes, 1.0);
    const auto later = KROMIDIMessage::messageWithData(bytes, 2.0);
    auto plainNote = std::make_shared<KROMIDINoteMessage>();
    plainNote->initWithBytes(bytes.data(), bytes.size(), 1.0);
    const auto other = KROMIDIMessage::messageWithData({0x90, 0x3C, 0x65}, 1.0);

    EXPECT_TRUE(noteOn->isEqualToMessage(*later));
    EXPECT_TRUE(plainNote->isEqualToMessage(*noteOn));
    EXPECT_FALSE(noteOn->isEqualToMessage(*plainNote));
    EXPECT_FALSE(noteOn->isEqualToMessage(*other));
    EXPECT_TRUE(noteOn->isEqual(*later));
    EXPECT_EQ(noteOn->hash(), later->hash());
}

// A copy and an archive read back keep the class, every byte (even one the
// class would set on creation) and the timestamp.
TEST(KROMIDIMessage, CopiesAndArchivesKeepClassBytesAndTimestamp) {
    auto frame = KROMIDIMTCFullFrameMessage::message();
    frame->setSysexID(0x10);
    frame->setTimestamp(12.5);
    auto plainNote = std::make_shared<KROMIDINoteMessage>();
    const KROData noteBytes = {0x90, 0x3C, 0x64};
    plainNote->initWithBytes(noteBytes.data(), noteBytes.size(), 3.0);

    for (const std::shared_ptr<KROMIDIMessage>& original :
         std::vector<std::shared_ptr<KROMIDIMessage>>{frame, plainNote}) {
        SCOPED_TRACE(original->className());
        KROPropertyList coder;
        original->encodeWithCoder(coder);
        const std::string xml = coder.toXML();
        const auto read = KROPropertyList::fromData(xml.data(), xml.size());
        ASSERT_TRUE(read);
        for (const auto& copy : {original->copy(), KROMIDIMessage::messageWithCoder(*read)}) {
            ASSERT_TRUE(copy);
            EXPECT_EQ(copy->className(), original->className());
            EXPECT_EQ(bytesOf(*copy), bytesOf(*original));
            EXPECT_EQ(copy->packet()->timeStamp, original->packet()->timeStamp);
        }
    }
    KROPropertyList notAMessage;
    notAMessage.setObjectForKey("class", "KROAudioLabel");
    notAMessage.setObjectForKey("timestamp", 0.0);
    notAMessage.setObjectForKey("data", KROData{0xF8});
    EXPECT_FALSE(KROMIDIMessage::messageWithCoder(notAMessage));
}

// Timestamps are seconds on the monotonic clock, stored as nanosecond ticks
// and truncated to whole ticks.
TEST(KROMIDIMessage, TimestampsAreMonotonicNanosecondTicks) {
    auto clock = KROMIDIClockMessage::message();
    clock->setTimestamp(1.5);
    EXPECT_EQ(clock->packet()->timeStamp, 1500000000u);
    EXPECT_EQ(KROMIDIMessage::machineTimestampForTimestamp(2.9e-9), 2u);
    EXPECT_EQ(KROMIDIMessage::machineTimestampForTimestamp(-1.0), 0u);
    EXPECT_DOUBLE_EQ(KROMIDIMessage::timestampForMachineTimestamp(250000000), 0.25);

    timespec before{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    const double now = KROMIDIMessage::currentTime();
    EXPECT_GE(now, double(before.tv_sec) + double(before.tv_nsec) * 1e-9);
    EXPECT_LT(now, double(before.tv_sec) + 1.0 + double(before.tv_nsec) * 1e-9);
}

// Names are texts of the string table, the controllers' too.
TEST(KROMIDIMessage, NamesComeFromTheStringTable) {
    EXPECT_EQ(KROMIDISysexMessage::name(), "System Exclusive");
    EXPECT_EQ(KROMIDISDSDataMessage::name(), "Universal System Exclusive");
    EXPECT_EQ(KROMIDIMessage::name(), "");
    const auto& names = KROMIDIControllerMessage::controllerNames();
    ASSERT_EQ(names.size(), 128u);
    EXPECT_EQ(names[7], "Channel Volume");
    EXPECT_EQ(names[127], "Poly On");
}
