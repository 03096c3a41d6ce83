// The router: ties that copy, sum and step over channels that do not exist,
// and the processor that changes a connection's channel count.
#include <gtest/gtest.h>

#include "KROAllocationGuard.h"
#include "KROAudioRouter.h"
#include "KROGraphTestClasses.h"
#include "KRORouterAudioProcessor.h"

using namespace kro_graph_test;

namespace {

using Tie = std::pair<std::uint64_t, std::uint64_t>;

std::shared_ptr<KROAudioRouter> routerWith(const std::vector<Tie>& ties) {
    auto router = KROAudioRouter::router();
    for (const auto& [input, output] : ties) {
        router->tieInputChannel(input, output);
    }
    return router;
}

// Channel c of a buffer filled with c + 1.
std::shared_ptr<KROAudioBufferList> numbered(std::uint32_t channels, std::uint64_t frames) {
    auto buffer = KROAudioBufferList::bufferListWithChannels(channels, frames);
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
        for (std::uint64_t frame = 0; frame < frames; ++frame) {
            buffer->setValue(static_cast<float>(channel + 1), frame, channel);
        }
    }
    return buffer;
}

std::vector<float> firstFrame(const KROAudioBufferList& buffer) {
    std::vector<float> values;
    for (std::uint32_t channel = 0; channel < buffer.numberOfChannels(); ++channel) {
        values.push_back(buffer.valueAtFrame(0, channel));
    }
    return values;
}

} // namespace

TEST(KROAudioRouter, TiesCopySumAndStepOverChannelsThatDoNotExist) {
    struct Case {
        const char* what;
        std::vector<Tie> ties;
        std::uint64_t inputFrames;
        bool withInputs;
        bool result;
        std::vector<float> outputs;
    };
    const Case cases[] = {
        {"one input to two outputs copies", {{0, 0}, {0, 1}}, 16, true, true, {1, 1, 0}},
        {"two inputs to one output sum", {{0, 2}, {1, 2}}, 16, true, true, {0, 0, 3}},
        {"a tie listed twice counts once", {{1, 0}, {1, 0}}, 16, true, true, {2, 0, 0}},
        {"channels the buffers lack are stepped over",
         {{5, 0}, {0, 5}, {1, 1}},
         16,
         true,
         true,
         {0, 2, 0}},
        {"other lengths leave silence", {{0, 0}}, 8, true, false, {0, 0, 0}},
        {"no inputs leave silence", {{0, 0}}, 16, false, true, {0, 0, 0}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const auto inputs = numbered(2, c.inputFrames);
        const auto outputs = numbered(3, 16);
        const auto router = routerWith(c.ties);
        bool result = false;
        KRO_EXPECT_NO_ALLOCATION(
            result = router->routeInputs(c.withInputs ? inputs.get() : nullptr, outputs.get()));
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(firstFrame(*outputs), c.outputs);
    }
    EXPECT_FALSE(routerWith({})->routeInputs(numbered(1, 4).get(), nullptr));
}

TEST(KROAudioRouter, PropertiesReplaceTheTiesOnlyWhenTheyNameThem) {
    const auto router = routerWith({{0, 1}, {1, 0}});
    const KROPropertyList saved = router->properties();
    router->setProperties(KROPropertyList());
    EXPECT_EQ(router->countOfTies(), 2u);
    KROPropertyList tie;
    tie.setObjectForKey("outputChannel", 3);
    KROPropertyList other;
    other.setObjectForKey("ties", KROPropertyList::Array{tie});
    router->setProperties(other);
    EXPECT_EQ(router->outputChannelsTiedToInputChannel(0), KROAudioRouter::ChannelSet{3});
    EXPECT_EQ(router->tieForInputChannel(0, 3)->description(),
              "input channel 0 -> output channel 3");
    EXPECT_EQ(KROAudioRouter::routerWithProperties(saved)->properties(), saved);
}

// A mono source reaches both channels of a stereo head through the router,
// whose input connection carries one channel.
TEST(KRORouterAudioProcessor, TheInputConnectionCarriesTheRoutersOwnChannelCount) {
    struct Case {
        const char* what;
        std::int64_t inputChannels;
        float expected;
    };
    for (const Case& c : {Case{"mono to both channels", 1, 0.5f}, Case{"no channels", 0, 0.0f}}) {
        SCOPED_TRACE(c.what);
        KROPropertyList head = entry("KROTestHead", "head");
        head.setObjectForKey("isRenderHead", true);
        KROPropertyList router = entry("KRORouterAudioProcessor", "router");
        router.setObjectForKey("numberOfInputChannels", c.inputChannels);
        KROPropertyList left;
        left.setObjectForKey("inputChannel", 0);
        left.setObjectForKey("outputChannel", 0);
        KROPropertyList right;
        right.setObjectForKey("outputChannel", 1);
        router.setObjectForKey("ties", KROPropertyList::Array{left, right});
        KROAudioStream stream;
        ASSERT_TRUE(stream.initWithDescription(description(
            {head, router, entry("KROTestGenerator", "generator")},
            {connection("in", "generator", "router"), connection("out", "router", "head")})));
        ASSERT_TRUE(stream.initialize());
        EXPECT_EQ(stream.connectionWithIdentifier("in")->numberOfChannels(),
                  static_cast<std::uint64_t>(c.inputChannels));
        auto output = processorOf<KROTestHead>(stream, "head");
        output->renderBlock();
        KRO_EXPECT_NO_ALLOCATION(output->renderBlock());
        EXPECT_TRUE(allSamplesAre(*output->buffer, c.expected));
        // While audio could run, the channel counts are fixed and the router
        // may be exchanged.
        auto processor = processorOf<KRORouterAudioProcessor>(stream, "router");
        KROErrorPtr error;
        EXPECT_FALSE(processor->setNumberOfOutputChannels(2, &error));
        expectError<KROAudioProcessorError>(
            error, 1, KROLocalizedString("KRORouterAudioProcessor_action_setOutputChannels"));
        processor->setRouter(routerWith({{0, 1}}));
        output->renderBlock();
        EXPECT_EQ(output->buffer->valueAtFrame(0, 0), 0.0f);
        EXPECT_EQ(output->buffer->valueAtFrame(0, 1), c.expected);
    }
}
