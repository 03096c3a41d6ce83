#include "KROAudioFileContentStandIn.h"

#include "KROClassRegistry.h"

const std::vector<std::string>& KROAudioFileContentStandIn::standInNames() {
    static const std::vector<std::string> names = {
        "KROAudioFileAIFFContent", "KROAudioFileCAFContent",    "KROAudioFileSFILContent",
        "KROAudioFileAUContent",   "KROAudioFileWAV64Content",  "KROAudioFileMP3Content",
        "KROAudioFileM4AContent",  "KROAudioFileVorbisContent", "KROAudioFileFLACContent",
        "KROAudioFileVOXContent",  "KROAudioFileSDIIContent",
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
