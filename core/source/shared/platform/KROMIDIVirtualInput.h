// A destination this process makes: what others send to it is reassembled
// into messages for its receivers.
#pragma once

#include "KROMIDIInputReassembler.h"
#include "KROMIDIVirtualEndpoint.h"

class KROMIDIVirtualInput : public KROMIDIVirtualEndpoint {
    KRO_DECLARE_CLASS(KROMIDIVirtualInput)
public:
    ~KROMIDIVirtualInput() override;

    bool initWithName(const std::string& name, KROErrorPtr* error = nullptr) override;
    bool isInput() const override { return true; }
    void input(const std::uint8_t* bytes, std::size_t count, double timestamp) override;

private:
    KROMIDIInputReassembler reassembler_;
};
