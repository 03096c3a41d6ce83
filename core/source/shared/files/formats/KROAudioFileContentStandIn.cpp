#include "KROAudioFileContentStandIn.h"

#include "KROClassRegistry.h"

const std::vector<std::string>& KROAudioFileContentStandIn::standInNames() {
    static const std::vector<std::string> names = {
        "KROAudioFileDDPContent",
    };
    return names;
}

namespace {

// A real handler may have registered first; it is never replaced.
const bool standInsRegistered = [] {
    KROClassRegistry& registry = KROClassRegistry::sharedRegistry();
    for (const std::string& name : KROAudioFileContentStandIn::standInNames()) {
        if (!registry.hasClass(name)) {
            registry.registerClass(name, KROAudioFileContent::staticClassName(), [name] {
                return std::make_shared<KROAudioFileContentStandIn>(name);
            });
        }
    }
    return true;
}();

} // namespace
