// Sample dump messages against bytes written out by hand: the header with
// its 7-bit groups, period and loop, data packets with their checksum, and
// the handshakes a receiver answers with.
#include <gtest/gtest.h>

#include <vector>

#include "KROAudioLabel.h"
#include "KROMIDISDSHeaderMessage.h"
#include "KROMIDISDSMessage.h"

namespace {

KROData bytesOf(const KROMIDIMessage& message) {
    return KROData(message.bytes(), message.bytes() + message.length());
}

} // namespace

// A received header: sample 5, 16 bits, period 22675 ns, 1000 words, a
// forward loop over words 100 to 500.
TEST(KROMIDISDSHeaderMessage, ReadsAReceivedHeader) {
    const KROData bytes = {0xF0, 0x7E, 0x00, 0x01, 0x05, 0x00, 0x10, 0x13, 0x31, 0x01, 0x68,
                           0x07, 0x00, 0x64, 0x00, 0x00, 0x74, 0x03, 0x00, 0x00, 0xF7};
    const auto header = std::dynamic_pointer_cast<KROMIDISDSHeaderMessage>(
        KROMIDIMessage::messageWithData(bytes, 0.0));
    ASSERT_TRUE(header);
    EXPECT_EQ(header->description(), "sampleNumber: 5, depth: 16, rate: 44101, frames: 1000");
    const auto loop = header->loop();
    ASSERT_TRUE(loop);
    EXPECT_EQ(loop->type(), "loop");
    EXPECT_DOUBLE_EQ(loop->start(), 100.0 / 44101.0);
    EXPECT_DOUBLE_EQ(loop->end(), 500.0 / 44101.0);
    EXPECT_EQ(*loop->valueForKey("loopType")->stringValue(), "forward");

    KROData noLoop = bytes;
    noLoop[19] = 0x7F;
    EXPECT_FALSE(std::static_pointer_cast<KROMIDISDSHeaderMessage>(
                     KROMIDIMessage::messageWithData(noLoop, 0.0))
                     ->loop());
}

// A header built field by field. The rate goes through the whole-number
// period, so 44100 reads back as 44101 and the loop is placed at that rate.
TEST(KROMIDISDSHeaderMessage, BuildsExactBytes) {
    auto header = KROMIDISDSHeaderMessage::message();
    ASSERT_TRUE(header);
    EXPECT_EQ(bytesOf(*header), (KROData{0xF0, 0x7E, 0x00, 0x01, 0, 0, 0, 0, 0,    0,   0,
                                         0,    0,    0,    0,    0, 0, 0, 0, 0x7F, 0xF7}));
    header->setSampleNumber(300);
    header->setDepth(24);
    header->setRate(44100);
    header->setFrames(100000);
    auto loop = KROAudioLabel::labelOfType("loop");
    loop->setStart(1.0);
    loop->setEnd(2.0);
    loop->setValue(KROPropertyList("backward"), "loopType");
    header->setLoop(loop.get());
    EXPECT_EQ(bytesOf(*header),
              (KROData{0xF0, 0x7E, 0x00, 0x01, 0x2C, 0x02, 0x18, 0x13, 0x31, 0x01, 0x20,
                       0x0D, 0x06, 0x68, 0x04, 0x04, 0x4F, 0x09, 0x08, 0x01, 0xF7}));
    EXPECT_EQ(header->rate(), 44101u);
    const auto back = header->loop();
    ASSERT_TRUE(back);
    EXPECT_DOUBLE_EQ(back->start(), 1.0);
    EXPECT_DOUBLE_EQ(back->end(), 2.0);
    EXPECT_EQ(*back->valueForKey("loopType")->stringValue(), "backward");
    // Whole numbers truncate: 48000 Hz is 20833 ns, which reads back 48000.
    header->setRate(48000);
    EXPECT_EQ(header->rate(), 48000u);

    // No loop label: the loop spans the length, and the loop type stays.
    header->setLoop(nullptr);
    const KROData cleared = bytesOf(*header);
    EXPECT_EQ(KROData(cleared.begin() + 13, cleared.begin() + 20),
              (KROData{0x20, 0x0D, 0x06, 0x20, 0x0D, 0x06, 0x01}));
}

// Words count 16-bit units of depth-bit samples, at most what three 7-bit
// groups hold.
TEST(KROMIDISDSHeaderMessage, WordsAndFrames) {
    struct Case {
        std::uint8_t depth;
        std::uint32_t frame;
        std::uint32_t word;
        std::uint32_t frameBack;
    };
    const Case cases[] = {
        {24, 3, 5, 3}, {16, 1000, 1000, 1000}, {8, 3, 2, 4},
        {12, 1, 1, 1}, {0, 1000, 0, 0},        {24, 4000000000u, 0x1FFFFF, 1398100},
    };
    auto header = KROMIDISDSHeaderMessage::message();
    for (const Case& c : cases) {
        SCOPED_TRACE(int(c.depth));
        header->setDepth(c.depth);
        EXPECT_EQ(header->wordForFrame(c.frame), c.word);
        EXPECT_EQ(header->frameForWord(c.word), c.frameBack);
    }
    std::uint8_t packed[3];
    KROMIDISDSHeaderMessage::getPackedBytes(packed, 3, 0x1FFFFF + 1);
    EXPECT_EQ(KROData(packed, packed + 3), (KROData{0, 0, 0}));
    const std::uint8_t highBits[] = {0xFF, 0x81};
    EXPECT_EQ(KROMIDISDSHeaderMessage::unpackBytes(highBits, 2), 0x7Fu + (1u << 7));
}

// A data packet carries the exclusive or of bytes 1 to 124 in byte 125;
// every setter keeps it current, and a damaged packet fails the check.
TEST(KROMIDISDSDataMessage, ChecksumFollowsEveryChange) {
    auto packet = KROMIDISDSDataMessage::message();
    ASSERT_TRUE(packet);
    KROData expected(127, 0);
    expected[0] = 0xF0, expected[1] = 0x7E, expected[3] = 0x02, expected[125] = 0x7C;
    expected[126] = 0xF7;
    EXPECT_EQ(bytesOf(*packet), expected);

    packet->setPacketNumber(5);
    EXPECT_EQ(packet->bytes()[125], 0x7E ^ 0x02 ^ 0x05);
    packet->setSysexID(0x11);
    EXPECT_EQ(packet->bytes()[125], 0x7E ^ 0x11 ^ 0x02 ^ 0x05);
    std::vector<std::uint8_t> data(KROMIDISDSDataMessage::kDataLength);
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = std::uint8_t(i);
    packet->setData(data.data());
    std::uint8_t sum = 0x7E ^ 0x11 ^ 0x02 ^ 0x05;
    for (std::uint8_t byte : data)
        sum ^= byte;
    EXPECT_EQ(packet->bytes()[125], sum);
    EXPECT_TRUE(packet->confirmChecksum());
    EXPECT_EQ(KROData(packet->data(), packet->data() + data.size()), data);

    KROData damaged = bytesOf(*packet);
    damaged[60] ^= 0x01;
    const auto received = std::dynamic_pointer_cast<KROMIDISDSDataMessage>(
        KROMIDIMessage::messageWithData(damaged, 0.0));
    ASSERT_TRUE(received);
    EXPECT_FALSE(received->confirmChecksum());
    EXPECT_EQ(received->packetNumber(), 5);

    // A truncated packet neither confirms nor gives data.
    const KROData cut(damaged.begin(), damaged.begin() + 40);
    const auto truncated =
        std::static_pointer_cast<KROMIDISDSDataMessage>(KROMIDIMessage::messageWithData(cut, 0.0));
    EXPECT_FALSE(truncated->confirmChecksum());
    EXPECT_EQ(truncated->data(), nullptr);
}

// The four handshakes parse from the bytes a receiver sends and name the
// packet they answer.
TEST(KROMIDISDSMessage, HandshakesNameTheirPacket) {
    struct Case {
        std::uint8_t subID;
        const char* className;
    };
    const Case cases[] = {{0x7C, "KROMIDISDSWaitMessage"},
                          {0x7D, "KROMIDISDSCancelMessage"},
                          {0x7E, "KROMIDISDSErrorMessage"},
                          {0x7F, "KROMIDISDSSuccessMessage"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.className);
        const auto message = std::dynamic_pointer_cast<KROMIDISDSMessage>(
            KROMIDIMessage::messageWithData({0xF0, 0x7E, 0x03, c.subID, 0x2A, 0xF7}, 0.0));
        ASSERT_TRUE(message);
        EXPECT_EQ(message->className(), c.className);
        EXPECT_EQ(message->packetNumber(), 0x2A);
        EXPECT_EQ(message->sysexID(), 3);
        EXPECT_FALSE(message->isRealtime());
    }
}
