// A source this process makes: what it sends reaches whoever listens to it.
// It takes one message at a time; a message's timestamp is absolute on the
// host clock, 0 for at once. Kept as hosts know it: sendMessages and
// resetTimebase are not available here and only log.
#pragma once

#include "KROMIDIVirtualEndpoint.h"

class KROMIDIVirtualOutput : public KROMIDIVirtualEndpoint {
    KRO_DECLARE_CLASS(KROMIDIVirtualOutput)
public:
    bool initWithName(const std::string& name, KROErrorPtr* error = nullptr) override;
    void resetTimebase() override;
    bool sendsMessages() const override { return true; }
    bool sendMessage(const KROMIDIMessage* message, KROErrorPtr* error) override;
    // Logs and answers no.
    bool sendMessages(const std::vector<std::shared_ptr<KROMIDIMessage>>& messages,
                      KROErrorPtr* error) override;
};
