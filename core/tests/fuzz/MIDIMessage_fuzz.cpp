// Random bytes as received MIDI: the class they select, every field of that
// class read and written, the text forms, copies and archives. The sample
// dump header also converts its loop and words both ways.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "KROAudioLabel.h"
#include "KROMIDISDSHeaderMessage.h"
#include "KROMIDISDSMessage.h"
#include "KROMIDISysexMessage.h"
#include "KROMIDISystemMessages.h"
#include "KROMIDIUniversalMessage.h"
#include "KROMIDIVoiceMessage.h"

namespace {

void touchVoice(KROMIDIMessage& message, std::uint8_t value) {
    if (auto* voice = dynamic_cast<KROMIDIVoiceMessage*>(&message))
        voice->setChannel(std::uint8_t(voice->channel() + value));
    if (auto* note = dynamic_cast<KROMIDINoteMessage*>(&message))
        note->setNote(note->velocity()), note->setVelocity(value);
    if (auto* controller = dynamic_cast<KROMIDIControllerMessage*>(&message))
        controller->setFloatValue(controller->floatValue() * float(value) - 1.0f);
    if (auto* pitch = dynamic_cast<KROMIDIPitchWheelMessage*>(&message))
        pitch->setFloatValue(pitch->floatValue() * float(value)), pitch->setValue(pitch->value());
}

void touchSystemExclusive(KROMIDIMessage& message, std::uint8_t value) {
    if (auto* sysex = dynamic_cast<KROMIDISysexMessage*>(&message)) {
        const std::uint8_t* data = sysex->sysexData();
        for (std::int64_t i = 0; data && i < sysex->sysexDataLength(); ++i)
            value ^= data[i];
        (void)sysex->manufacturerID();
    }
    if (auto* frame = dynamic_cast<KROMIDIMTCFullFrameMessage*>(&message)) {
        frame->setRate(frame->rate()), frame->setHours(frame->hours() + value);
    }
    if (auto* header = dynamic_cast<KROMIDISDSHeaderMessage*>(&message)) {
        (void)header->frameForWord(header->wordForFrame(header->frames()));
        header->setLoop(header->loop().get());
    }
    if (auto* data = dynamic_cast<KROMIDISDSDataMessage*>(&message)) {
        if (data->confirmChecksum() && data->data()) {
            const std::vector<std::uint8_t> copy(data->data(), data->data() + 120);
            data->setData(copy.data());
        }
        data->setPacketNumber(value);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    (void)KROMIDIMessage::messageWithBytes(data, size, 0.0);
    const auto message = KROMIDIMessage::messageWithData(KROData(data, data + size), 1.0);
    if (!message)
        return 0;
    const std::uint8_t value = size ? data[size - 1] : 0;
    (void)message->description(), (void)message->logDescription();
    touchVoice(*message, value);
    touchSystemExclusive(*message, value);
    if (auto* universal = dynamic_cast<KROMIDIUniversalMessage*>(message.get()))
        universal->setSysexID(universal->sysexID() ^ value);
    (void)message->description(), (void)message->logDescription();
    KROPropertyList coder;
    message->encodeWithCoder(coder);
    const auto back = KROMIDIMessage::messageWithCoder(coder);
    if (!back || !back->isEqualToMessage(*message->copy()))
        __builtin_trap();
    return 0;
}
