// Turns the raw bytes an input endpoint receives into messages. The state
// lives here between calls, so a message or a sysex may span any number of
// packets. Runs on the thread that receives the bytes and allocates the
// messages it builds, so it never runs on a real-time thread.
//
// Kept as hosts know it: there is no running status (data bytes after a
// finished message are dropped), a status byte that interrupts an unfinished
// message does not reset the byte count, so the interrupting message only
// completes when the count happens to meet its length, and a real-time byte
// inside a sysex comes out as a message of its own while the sysex goes on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

class KROMIDIMessage;

class KROMIDIInputReassembler {
public:
    // The value of the expected length while no message is in progress.
    static constexpr std::uint64_t kNoMessage = 9223372036854775807ull;

    using Delivery = std::function<void(const std::shared_ptr<KROMIDIMessage>& message)>;

    // Feeds one packet's bytes received at timestamp (seconds on the host
    // clock); every message they complete goes to deliver, in order.
    void input(const std::uint8_t* bytes, std::size_t count, double timestamp,
               const Delivery& deliver);

    bool isSysexInProgress() const { return sysexInProgress_; }

private:
    void beginMessage(std::uint8_t status, double timestamp);
    void addDataByte(std::uint8_t byte);
    void finishSysex(const Delivery& deliver);
    void finishMessageIfComplete(const Delivery& deliver);

    std::vector<std::uint8_t> messageData_;
    bool messageInProgress_ = false;
    std::uint64_t messageLength_ = kNoMessage;
    std::uint64_t messagePosition_ = 0;
    double messageTimestamp_ = 0.0;
    std::vector<std::uint8_t> sysexData_;
    bool sysexInProgress_ = false;
    double sysexTimestamp_ = 0.0;
};
