// Random bytes as received MIDI, cut into packets: each packet is a length
// byte and that many bytes. Whatever comes out must be a well-formed message:
// a status byte first, and a message other than a sysex of its class's length
// with data bytes after the status. Of a sysex only the start is checked: a
// class such as the full time code frame writes its own constant bytes, the
// end included, over what arrived.
#include <cstddef>
#include <cstdint>

#include "KROMIDIInputReassembler.h"
#include "KROMIDIMessage.h"

namespace {

bool isWellFormed(const KROMIDIMessage& message) {
    const std::uint8_t* bytes = message.bytes();
    const std::size_t length = message.length();
    if (length == 0 || (bytes[0] & 0x80) == 0) {
        return false;
    }
    if (bytes[0] == 0xF0) {
        return length >= 2;
    }
    for (std::size_t index = 1; index < length; ++index) {
        if (bytes[index] & 0x80) {
            return false;
        }
    }
    return message.classOfMessage().length == std::int64_t(length);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    KROMIDIInputReassembler reassembler;
    double timestamp = 0.0;
    double lastTimestamp = 0.0;
    std::size_t position = 0;
    while (position < size) {
        const std::size_t length = std::min<std::size_t>(data[position], size - position - 1);
        timestamp += 0.001;
        reassembler.input(data + position + 1, length, timestamp,
                          [&](const std::shared_ptr<KROMIDIMessage>& message) {
                              // A sysex is stamped with its start, so only
                              // the bounds hold for every message.
                              if (!message || !isWellFormed(*message) ||
                                  message->timestamp() > timestamp + 1e-9 ||
                                  message->timestamp() <= 0.0) {
                                  __builtin_trap();
                              }
                              lastTimestamp = message->timestamp();
                          });
        position += length + 1;
    }
    (void)lastTimestamp;
    return 0;
}
