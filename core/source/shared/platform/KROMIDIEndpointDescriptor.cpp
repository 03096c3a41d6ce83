#include "KROMIDIEndpointDescriptor.h"

void KROMIDIEndpointDescriptor::encodeWithCoder(KROPropertyList& coder) const {
    coder.setObjectForKey("name", name_);
    coder.setObjectForKey("uniqueID", std::int64_t(uniqueID_));
}

bool KROMIDIEndpointDescriptor::initWithCoder(const KROPropertyList& coder) {
    const KROPropertyList* name = coder.objectForKey("name");
    const KROPropertyList* uniqueID = coder.objectForKey("uniqueID");
    if (!name || !name->stringValue() || !uniqueID || !uniqueID->integerValue()) {
        return false;
    }
    name_ = *name->stringValue();
    // Stored as 32 bits: the upper half of a wider value is dropped.
    uniqueID_ = std::int32_t(*uniqueID->integerValue());
    return true;
}
