// An endpoint of hardware: reached through a port of this process that is
// made when the endpoint starts.
#pragma once

#include "KROMIDIEndpoint.h"

class KROMIDIPhysicalEndpoint : public KROMIDIEndpoint {
    KRO_DECLARE_CLASS(KROMIDIPhysicalEndpoint)
public:
    bool isOnline() const override { return endpointID() != 0; }
    bool isRunning() const override { return portID_ != 0; }
    KROMIDIBackend::PortID portID() const { return portID_; }

protected:
    KROMIDIBackend::PortID portID_ = 0;
};
