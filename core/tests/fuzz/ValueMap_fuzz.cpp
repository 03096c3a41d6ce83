// libFuzzer target: random bytes read as a property list and given, as they
// would come from a stored file, to a value map, an automation and a router;
// every curve is then evaluated across and beyond its input range. Bytes that
// are no property list are read as one point in the "{x, y}" notation. Any
// crash, leak or sanitizer report is a finding.
#include <cstddef>
#include <cstdint>
#include <string>

#include "KROAudioAutomation.h"
#include "KROAudioRouter.h"
#include "KROPropertyList.h"
#include "KROValueMap.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto properties = KROPropertyList::fromData(data, size);
    if (!properties) {
        (void)KROPointFromString(std::string(reinterpret_cast<const char*>(data), size));
        return 0;
    }
    const auto map = KROValueMap::map();
    map->setProperties(*properties);
    const auto automation = KROAudioAutomation::automation();
    automation->setProperties(*properties);
    for (int step = -5; step <= 15; ++step) {
        (void)map->outputValueForInputValue(float(step) / 10.0f);
        (void)automation->valueForLocation(automation->location() +
                                           automation->length() * double(step) / 10.0);
    }
    (void)map->copy()->properties();
    map->reset();
    (void)automation->copy()->properties();
    (void)KROAudioRouter::routerWithProperties(*properties)->properties();
    return 0;
}
