// Hardware that this process sends to, through one port of its own named
// "KRMIDIOutput". Timestamps of outgoing messages count from the timebase,
// the host clock when the output started or resetTimebase was last called;
// a timestamp of 0 sends at once.
#pragma once

#include "KROMIDIPhysicalEndpoint.h"

class KROMIDIPhysicalOutput : public KROMIDIPhysicalEndpoint {
    KRO_DECLARE_CLASS(KROMIDIPhysicalOutput)
public:
    ~KROMIDIPhysicalOutput() override;

    // Makes the port once and resets the timebase.
    bool start(KROErrorPtr* error) override;
    // Answers yes; the port stays for the next start.
    bool stop(KROErrorPtr*) override { return true; }
    void resetTimebase() override { timebaseNeedsReset_ = true; }

    bool sendsMessages() const override { return true; }
    // None sends nothing and answers yes; offline or not started fails
    // with code 1.
    bool sendMessage(const KROMIDIMessage* message, KROErrorPtr* error) override;
    bool sendMessages(const std::vector<std::shared_ptr<KROMIDIMessage>>& messages,
                      KROErrorPtr* error) override;

private:
    bool checkSendable(KROErrorPtr* error);
    std::uint64_t packetTime(const KROMIDIMessage& message) const;

    std::uint64_t timebase_ = 0;
    bool timebaseNeedsReset_ = true;
};
