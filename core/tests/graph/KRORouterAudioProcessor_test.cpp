// The router: ties that copy, sum and skip missing channels; its own channel count.
#include <gtest/gtest.h>

#include "KROAllocationGuard.h"
#include "KROAudioRouter.h"
#include "KRORouterAudioProcessor.h"
#include "KROShapingTestSupport.h"

using namespace kro_shaping_test;

namespace {

std::shared_ptr<KROAudioRouter> routerWith(const std::vector<std::pair<int, int>>& ties) {
    auto router = KROAudioRouter::router();
    for (const auto& [input, output] : ties) {
        router->tieInputChannel(std::uint64_t(input), std::uint64_t(output));
    }
    return router;
}

// Channel c of every frame holds c + 1.
std::shared_ptr<KROAudioBufferList> numbered(std::uint32_t channels, std::uint64_t frames) {
    auto buffer = KROAudioBufferList::bufferListWithChannels(channels, frames);
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
        for (std::uint64_t frame = 0; frame < frames; ++frame) {
            buffer->setValue(float(channel + 1), frame, channel);
        }
    }
    return buffer;
}

} // namespace

TEST(KROAudioRouter, TiesCopySumAndStepOverChannelsThatDoNotExist) {
    struct Case {
        const char* what;
        std::vector<std::pair<int, int>> ties;
        std::uint64_t inputFrames;
        bool result;
        std::vector<float> outputs;
    };
    // clang-format off
    const Case cases[] = {
        {"one input to two outputs copies", {{0, 0}, {0, 1}}, 16, true, {1, 1, 0}},
        {"two inputs to one output sum", {{0, 2}, {1, 2}}, 16, true, {0, 0, 3}},
        {"a tie listed twice counts once", {{1, 0}, {1, 0}}, 16, true, {2, 0, 0}},
        {"channels the buffers lack are stepped over", {{5, 0}, {0, 5}, {1, 1}}, 16, true, {0, 2, 0}},
        {"another length leaves silence", {{0, 0}}, 8, false, {0, 0, 0}},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const auto inputs = numbered(2, c.inputFrames);
        const auto outputs = numbered(3, 16);
        const auto router = routerWith(c.ties);
        bool result = false;
        KRO_EXPECT_NO_ALLOCATION(result = router->routeInputs(inputs.get(), outputs.get()));
        EXPECT_EQ(result, c.result);
        for (std::uint32_t channel = 0; channel < 3; ++channel) {
            EXPECT_EQ(outputs->valueAtFrame(15, channel), c.outputs[channel]);
        }
    }
    EXPECT_FALSE(routerWith({})->routeInputs(numbered(1, 4).get(), nullptr));
    // Properties without "ties" leave the ties.
    const auto router = routerWith({{0, 1}});
    router->setProperties(KROPropertyList());
    EXPECT_EQ(router->properties(), routerWith({{0, 1}})->properties());
}

TEST(KRORouterAudioProcessor, TheInputConnectionCarriesTheRoutersOwnChannelCount) {
    for (const std::int64_t channels : {1, 0}) {
        SCOPED_TRACE(channels);
        KROPropertyList router = entry("KRORouterAudioProcessor", "router");
        router.setObjectForKey("numberOfInputChannels", channels);
        // Ties at the top level of the settings; a missing channel reads 0.
        KROPropertyList right;
        right.setObjectForKey("outputChannel", 1);
        router.setObjectForKey("ties", KROPropertyList::Array{KROPropertyList(), right});
        const Graph routed =
            graph({router, entry("KROTestGenerator", "generator")},
                  {connection("in", "generator", "router"), connection("out", "router", "head")});
        EXPECT_EQ(routed.stream->connectionWithIdentifier("in")->numberOfChannels(),
                  std::uint64_t(channels));
        auto output = routed.head;
        output->renderBlock();
        KRO_EXPECT_NO_ALLOCATION(output->renderBlock());
        EXPECT_TRUE(allSamplesAre(*output->buffer, channels ? 0.5f : 0.0f));

        auto processor = routed.get<KRORouterAudioProcessor>("router");
        KROErrorPtr error;
        EXPECT_FALSE(processor->setNumberOfOutputChannels(2, &error));
        expectError<KROAudioProcessorError>(
            error, 1, KROLocalizedString("KRORouterAudioProcessor_action_setOutputChannels"));
        // The router may be exchanged while audio could run.
        processor->setRouter(routerWith({{0, 1}}));
        output->renderBlock();
        EXPECT_EQ(output->buffer->valueAtFrame(0, 0), 0.0f);
        EXPECT_EQ(output->buffer->valueAtFrame(0, 1), channels ? 0.5f : 0.0f);
    }
}
