// Random bytes as received MIDI, cut into packets: each packet is a length
// byte and that many bytes. Whatever comes out must be a well-formed message:
// a status byte first, data bytes after it, a sysex closed by 0xF7, and a
// fixed-length message of its class's length.
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
    const bool isSysex = bytes[0] == 0xF0;
    if (isSysex && bytes[length - 1] != 0xF7) {
        return false;
    }
    const std::size_t dataEnd = isSysex ? length - 1 : length;
    for (std::size_t index = 1; index < dataEnd; ++index) {
        if (bytes[index] & 0x80) {
            return false;
        }
    }
    const std::int64_t classLength = message.classOfMessage().length;
    return isSysex || classLength == std::int64_t(length);
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
