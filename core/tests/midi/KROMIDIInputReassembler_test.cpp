// Received bytes, packet by packet, against the messages that come out: split
// messages, real-time bytes inside a sysex, the lost running status and the
// other odd cases hosts rely on.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KROMIDIInputReassembler.h"
#include "KROMIDIMessage.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

struct Delivered {
    Bytes bytes;
    double timestamp;
    std::string className;
};

// Feeds each packet at timestamp 1, 2, 3 ... seconds.
std::vector<Delivered> reassemble(const std::vector<Bytes>& packets) {
    KROMIDIInputReassembler reassembler;
    std::vector<Delivered> out;
    double timestamp = 0.0;
    for (const Bytes& packet : packets) {
        reassembler.input(packet.data(), packet.size(), ++timestamp,
                          [&](const std::shared_ptr<KROMIDIMessage>& message) {
                              out.push_back(
                                  {Bytes(message->bytes(), message->bytes() + message->length()),
                                   message->timestamp(), message->className()});
                          });
    }
    return out;
}

} // namespace

TEST(KROMIDIInputReassembler, PacketsBecomeTheMessagesHostsExpect) {
    struct Case {
        const char* what;
        std::vector<Bytes> packets;
        std::vector<Bytes> messages;
        std::vector<double> timestamps; // of each message: its status byte's packet
    };
    const Case cases[] = {
        {"a note split over two packets", {{0x90, 0x40}, {0x7F}}, {{0x90, 0x40, 0x7F}}, {1}},
        {"controller and program change in one packet",
         {{0xB0, 0x07, 0x64, 0xC1, 0x05}},
         {{0xB0, 0x07, 0x64}, {0xC1, 0x05}},
         {1, 1}},
        {"real-time bytes inside a sysex come out first, the sysex stays whole",
         {{0xF0, 0x7E, 0x01}, {0xF8, 0x02, 0xFE}, {0x03, 0xF7}},
         {{0xF8}, {0xFE}, {0xF0, 0x7E, 0x01, 0x02, 0x03, 0xF7}},
         {2, 2, 1}},
        {"no running status: two more data bytes are lost",
         {{0x90, 0x40, 0x7F, 0x41, 0x7F, 0x80, 0x40, 0x00}},
         {{0x90, 0x40, 0x7F}, {0x80, 0x40, 0x00}},
         {1, 1}},
        {"stray data bytes before any status are dropped",
         {{0x40, 0x41}, {0xC0, 0x05}},
         {{0xC0, 0x05}},
         {2}},
        {"a sysex without an end is dropped by the next sysex",
         {{0xF0, 0x01, 0x02}, {0xF0, 0x03, 0xF7}},
         {{0xF0, 0x03, 0xF7}},
         {2}},
        // The stray end names no class and never completes; the note after
        // it counts on from its position, so its first data byte lands last.
        {"a stray sysex end shifts the next message",
         {{0xF7, 0x90, 0x40, 0x7F}},
         {{0x90, 0x00, 0x40}},
         {1}},
        {"data bytes after a stray sysex end count on too",
         {{0xF7, 0x40, 0x90, 0x40, 0x7F}},
         {{0x90, 0x00, 0x00}},
         {1}},
        // The count of the unfinished note carries over: the controller is
        // complete at its status byte, and its data bytes are then lost.
        {"a status interrupting a note keeps the count",
         {{0x90, 0x40, 0xB0, 0x07, 0x10, 0xF8}},
         {{0xB0, 0x00, 0x00}, {0xF8}},
         {1, 1}},
        {"a long sysex across many packets",
         {{0xF0, 0x7D}, Bytes(300, 0x55), Bytes(300, 0x2A), {0xF7}},
         {[] {
             Bytes whole{0xF0, 0x7D};
             whole.insert(whole.end(), 300, 0x55);
             whole.insert(whole.end(), 300, 0x2A);
             whole.push_back(0xF7);
             return whole;
         }()},
         {1}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const auto out = reassemble(c.packets);
        ASSERT_EQ(out.size(), c.messages.size());
        for (std::size_t index = 0; index < out.size(); ++index) {
            EXPECT_EQ(out[index].bytes, c.messages[index]) << "message " << index;
            EXPECT_NEAR(out[index].timestamp, c.timestamps[index], 1e-9) << "message " << index;
        }
    }
}

// What comes out is of the class the bytes name, so receivers can read fields.
TEST(KROMIDIInputReassembler, MessagesComeOutOfTheirClass) {
    const auto out =
        reassemble({{0x90, 0x3C, 0x00, 0xE0, 0x00, 0x40, 0xF0, 0x7E, 0x7F, 0x06, 0x01, 0xF7}});
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0].className, "KROMIDINoteOffMessage");
    EXPECT_EQ(out[1].className, "KROMIDIPitchWheelMessage");
    EXPECT_NE(out[2].className.find("Message"), std::string::npos);
}
