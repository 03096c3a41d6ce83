// The mixer: inputs summed at unity gain in bus order, and a refused input
// that mixes the bus before it a second time, as every refused pull leaves
// its buffer alone.
#include <gtest/gtest.h>

#include "KROAllocationGuard.h"
#include "KROGraphTestClasses.h"
#include "KROMixerAudioProcessor.h"

using namespace kro_graph_test;

namespace {

// head <- mixer <- one generator for each value, all on a description.
std::shared_ptr<KROAudioStream> mixerStream(const std::vector<float>& values) {
    KROPropertyList head = entry("KROTestHead", "head");
    head.setObjectForKey("isRenderHead", true);
    KROPropertyList mixer = entry("KROMixerAudioProcessor", "mixer");
    KROPropertyList::Array buses;
    KROPropertyList::Array processors{head};
    KROPropertyList::Array connections{connection("out", "mixer", "head")};
    for (std::size_t i = 0; i < values.size(); ++i) {
        const std::string bus = "in" + std::to_string(i);
        const std::string generator = "g" + std::to_string(i);
        KROPropertyList busEntry;
        busEntry.setObjectForKey("identifier", bus);
        buses.push_back(busEntry);
        KROPropertyList source = entry("KROTestGenerator", generator.c_str());
        source.setObjectForKey("value", static_cast<double>(values[i]));
        processors.push_back(source);
        connections.push_back(connection(bus.c_str(), generator.c_str(), bus.c_str()));
    }
    mixer.setObjectForKey("inputBuses", std::move(buses));
    processors.push_back(mixer);
    auto stream = std::make_shared<KROAudioStream>();
    KROErrorPtr error;
    EXPECT_TRUE(stream->initWithDescription(description(processors, connections), &error));
    EXPECT_TRUE(stream->initialize(&error)) << (error ? error->description() : "");
    return stream;
}

} // namespace

TEST(KROMixerAudioProcessor, InputsAreSummedAtUnityGainAndARefusedInputRepeatsTheOneBefore) {
    struct Case {
        const char* what;
        std::vector<float> values;
        // The bus whose connection refuses the mixer's buffer, or -1.
        int refused;
        float expected;
    };
    const Case cases[] = {
        {"no input buses give silence", {}, -1, 0.0f},
        {"three equal inputs give three times the level", {0.25f, 0.25f, 0.25f}, -1, 0.75f},
        {"inputs add with no division", {0.25f, 0.5f, 1.0f}, -1, 1.75f},
        {"a refused input mixes the bus before it again", {0.25f, 0.5f, 1.0f}, 1, 1.5f},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const auto stream = mixerStream(c.values);
        if (c.refused >= 0) {
            const std::string name = "in" + std::to_string(c.refused);
            stream->connectionWithIdentifier(name)->setNumberOfChannels(1);
        }
        auto head = processorOf<KROTestHead>(*stream, "head");
        head->buffer->setValue(9.0f, 0);
        head->renderBlock();
        KRO_EXPECT_NO_ALLOCATION(head->renderBlock());
        EXPECT_TRUE(allSamplesAre(*head->buffer, c.expected));
    }
}
