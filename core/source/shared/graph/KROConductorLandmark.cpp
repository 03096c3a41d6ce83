#include "KROConductorLandmark.h"

#include "KROClassRegistry.h"
#include "KROStringWithFormat.h"

KRO_REGISTER_CLASS(KROConductorLandmark, KROObject)

std::string KROConductorLandmark::description() const {
    return KROStringWithFormatArguments(
        "location: %f, stop: %d/%d, jump: %d/%d, jumpLocation: %f, reverseDirection: %d/%d",
        location(), int(stopWhenForward()), int(stopWhenReverse()), int(jumpWhenForward()),
        int(jumpWhenReverse()), jumpLocation(), int(reverseDirectionWhenForward()),
        int(reverseDirectionWhenReverse()));
}
