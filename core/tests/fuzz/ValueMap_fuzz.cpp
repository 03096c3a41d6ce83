// Random property lists given to a value map, an automation and a router, each
// curve evaluated beyond its range; other bytes read as a "{x, y}" point.
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
