#include "KROMIDISDSHeaderMessage.h"

#include <cmath>
#include <cstring>

#include "KROAudioLabel.h"
#include "KROClassRegistry.h"
#include "KROStringWithFormat.h"

KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDISDSHeaderMessage, KROMIDIUniversalMessage, 21, 0xF0,
                                  "Universl", "KROMIDIUniversalMessage_name")

namespace {

constexpr std::uint32_t kMostWord = 0x1FFFFF;
constexpr std::uint32_t kNanosecondsPerSecond = 1000000000;
constexpr std::uint8_t kNoLoop = 0x7F;

// trunc(seconds x rate) as a frame, held to what 32 bits count.
std::uint32_t wholeFrame(double frame) {
    if (!(frame > 0.0))
        return 0;
    return frame >= 4294967295.0 ? 0xFFFFFFFFu : std::uint32_t(frame);
}

} // namespace

bool KROMIDISDSHeaderMessage::init() {
    if (!KROMIDIUniversalMessage::init())
        return false;
    setIsRealtime(false);
    setByteAt(3, 0x01);
    setByteAt(19, kNoLoop);
    setByteAt(20, 0xF7);
    return true;
}

void KROMIDISDSHeaderMessage::getPackedBytes(std::uint8_t* bytes, std::size_t count,
                                             std::uint32_t value) {
    for (std::size_t i = 0; i < count; ++i, value >>= 7)
        bytes[i] = value & 0x7F;
}

std::uint32_t KROMIDISDSHeaderMessage::unpackBytes(const std::uint8_t* bytes, std::size_t count) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < count; ++i)
        value += std::uint32_t(bytes[i] & 0x7F) << (7 * i);
    return value;
}

std::uint32_t KROMIDISDSHeaderMessage::packedAt(std::size_t index, std::size_t count) const {
    return holdsBytes(index + count) ? unpackBytes(bytes() + index, count) : 0;
}

void KROMIDISDSHeaderMessage::setPackedAt(std::size_t index, std::size_t count,
                                          std::uint32_t value) {
    if (holdsBytes(index + count))
        getPackedBytes(packet()->data.get() + index, count, value);
}

std::uint32_t KROMIDISDSHeaderMessage::wordForFrame(std::uint32_t frame) const {
    if (depth() == 0)
        return 0;
    // Kept in 32-bit float: dumps made by earlier versions carry its rounding.
    const float word = std::ceil(float(depth()) * float(frame) * 0.0625f);
    return word >= float(kMostWord) ? kMostWord : std::uint32_t(word);
}

std::uint32_t KROMIDISDSHeaderMessage::frameForWord(std::uint32_t word) const {
    return depth() == 0 ? 0 : (word * 16) / depth();
}

std::uint32_t KROMIDISDSHeaderMessage::rate() const {
    const std::uint32_t period = packedAt(7, 3);
    return period ? kNanosecondsPerSecond / period : 0;
}

void KROMIDISDSHeaderMessage::setRate(std::uint32_t rate) {
    setPackedAt(7, 3, rate ? kNanosecondsPerSecond / rate : 0);
}

std::shared_ptr<KROAudioLabel> KROMIDISDSHeaderMessage::loop() const {
    if (!holdsBytes(20) || byteAt(19) == kNoLoop)
        return nullptr;
    auto label = KROAudioLabel::labelOfType("loop");
    if (byteAt(19) == 1)
        label->setValue(KROPropertyList("backward"), "loopType");
    else if (byteAt(19) == 0)
        label->setValue(KROPropertyList("forward"), "loopType");
    const double samplesPerSecond = rate();
    label->setStart(double(frameForWord(packedAt(13, 3))) / samplesPerSecond);
    label->setEnd(double(frameForWord(packedAt(16, 3))) / samplesPerSecond);
    return label;
}

void KROMIDISDSHeaderMessage::setLoop(const KROAudioLabel* loop) {
    if (!holdsBytes(20))
        return;
    if (!loop) {
        std::uint8_t* data = packet()->data.get();
        std::memcpy(data + 13, data + 10, 3);
        std::memcpy(data + 16, data + 10, 3);
        return;
    }
    const double samplesPerSecond = rate();
    setPackedAt(13, 3, wordForFrame(wholeFrame(samplesPerSecond * loop->start())));
    setPackedAt(16, 3, wordForFrame(wholeFrame(samplesPerSecond * loop->end())));
    const auto type = loop->valueForKey("loopType");
    const bool backward = type && type->stringValue() && *type->stringValue() == "backward";
    setByteAt(19, backward ? 1 : 0);
}

std::string KROMIDISDSHeaderMessage::description() const {
    return KROStringWithFormatArguments("sampleNumber: %d, depth: %d, rate: %d, frames: %d",
                                        sampleNumber(), depth(), rate(), frames());
}
