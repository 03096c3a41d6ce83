// The mixer: inputs summed in bus order; kept: a refused input mixes the bus before it again.
#include <gtest/gtest.h>

#include "KROAllocationGuard.h"
#include "KROMixerAudioProcessor.h"
#include "KROShapingTestSupport.h"

using namespace kro_shaping_test;

TEST(KROMixerAudioProcessor, InputsAreSummedAtUnityGainAndARefusedInputRepeatsTheOneBefore) {
    struct Case {
        const char* what;
        std::vector<float> values;
        // The input whose connection refuses the mixer's buffer, or -1.
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
        // head <- mixer <- g0, g1 ... on buses in0, in1 ...
        std::vector<std::string> buses;
        KROPropertyList::Array processors;
        KROPropertyList::Array connections{connection(nullptr, "mixer", "head")};
        for (std::size_t i = 0; i < c.values.size(); ++i) {
            const std::string source = "g" + std::to_string(i);
            buses.push_back("in" + std::to_string(i));
            processors.push_back(entry("KROTestGenerator", source.c_str()));
            processors.back().setObjectForKey("value", double(c.values[i]));
            connections.push_back(connection(source.c_str(), source.c_str(), buses[i].c_str()));
        }
        processors.push_back(
            withBuses(entry("KROMixerAudioProcessor", "mixer"), "inputBuses", buses));
        const Graph mixing = graph(processors, connections);
        if (c.refused >= 0) {
            mixing.stream->connectionWithIdentifier("g" + std::to_string(c.refused))
                ->setNumberOfChannels(1);
        }
        mixing.head->buffer->setValue(9.0f, 0);
        mixing.head->renderBlock();
        KRO_EXPECT_NO_ALLOCATION(mixing.head->renderBlock());
        EXPECT_TRUE(allSamplesAre(*mixing.head->buffer, c.expected));
    }
}
