// Hardware that sends to this process. Started, it listens through its own
// port, named "KRMIDIInput", and reassembles what arrives into messages for
// its receivers.
#pragma once

#include "KROMIDIInputReassembler.h"
#include "KROMIDIPhysicalEndpoint.h"

class KROMIDIPhysicalInput : public KROMIDIPhysicalEndpoint {
    KRO_DECLARE_CLASS(KROMIDIPhysicalInput)
public:
    ~KROMIDIPhysicalInput() override;

    bool isInput() const override { return true; }
    // No with endpoint ID 0; yes at once when a port exists.
    bool start(KROErrorPtr* error) override;
    // The port goes whatever the disconnection answers.
    bool stop(KROErrorPtr* error) override;
    void input(const std::uint8_t* bytes, std::size_t count, double timestamp) override;

private:
    KROMIDIInputReassembler reassembler_;
};
