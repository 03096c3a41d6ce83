// Automations: values inside inclusive bounds, saved curves, one value a key a block.
#include <gtest/gtest.h>

#include <array>
#include <string>

#include "KROAllocationGuard.h"
#include "KROAudioAutomation.h"
#include "KROGraphTestClasses.h"

namespace {

std::shared_ptr<KROAudioAutomation> automationOver(const char* key, double location, double length,
                                                   float minimum, float maximum) {
    auto automation = KROAudioAutomation::automation();
    automation->setParameterKey(key);
    automation->setLocation(location);
    automation->setLength(length);
    automation->setMinimum(minimum);
    automation->setMaximum(maximum);
    return automation;
}

// Records each value set, in order, without allocating.
class KROTestAutomatedProcessor : public KROTestPassThrough {
    KRO_DECLARE_CLASS(KROTestAutomatedProcessor)

public:
    void setValue(const KROPropertyList& value, const std::string& key) override {
        if (count < values.size()) {
            keys[count] = key.empty() ? '?' : key[0];
            values[count++] = value.doubleValue();
        }
    }

    std::array<char, 8> keys{};
    std::array<double, 8> values{};
    std::size_t count = 0;
};

} // namespace

TEST(KROAudioAutomation, ValuesFollowTheCurveInsideInclusiveBoundsAndAre0Outside) {
    const auto automation = automationOver("gain", 1.0, 2.0, 0.5f, 4.5f);
    struct Case {
        double seconds;
        float value;
    };
    for (const Case c : {Case{1.0, 0.5f}, Case{2.0, 2.5f}, Case{3.0, 4.5f}, Case{0.999, 0.0f},
                         Case{3.0001, 0.0f}}) {
        SCOPED_TRACE(c.seconds);
        EXPECT_FLOAT_EQ(automation->valueForLocation(c.seconds), c.value);
    }
    EXPECT_FLOAT_EQ(automation->normalizedValueForLocation(1.5), 0.25f);
    // A stretch of no length gives the curve's value at its start.
    automation->valueMap().objectInControlPointsAtIndex(0)->setPoint({0.0, 0.25});
    automation->setLength(0.0);
    EXPECT_FLOAT_EQ(automation->valueForLocation(1.0), 0.5f + 4.0f * 0.25f);
    // The curve is saved with the automation and comes back with a copy.
    EXPECT_EQ(*automation->properties().objectForKey("valueMap"),
              automation->valueMap().properties());
    EXPECT_FLOAT_EQ(automation->copy()->valueForLocation(1.0), 1.5f);
}

// One value a key, from enabled automations by location: at the block's start,
// unchanged when one begins inside, an ended one's last value.
TEST(KROAudioAutomation, APlayedBlockSetsOneValueForEachParameterFromItsAutomations) {
    auto processor = kro_graph_test::make<KROTestAutomatedProcessor>();
    auto disabled = automationOver("c", 0.0, 10.0, 1.0f, 1.0f);
    disabled->setEnabled(false);
    processor->insertAutomationsAtIndexes({automationOver("b", 3.0, 1.0, 20.0f, 30.0f),
                                           automationOver("a", 0.0, 2.0, 100.0f, 200.0f), disabled,
                                           automationOver("b", 1.0, 1.0, 0.0f, 10.0f)},
                                          {0, 1, 2, 3});
    struct Case {
        std::int64_t firstFrame;
        double a;
        double b;
    };
    const Case cases[] = {
        {1500, 175.0, 5.0}, {2500, 200.0, 10.0}, {2950, 200.0, 10.0}, {3050, 200.0, 20.5}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.firstFrame);
        processor->count = 0;
        KRO_EXPECT_NO_ALLOCATION(processor->applyAutomations(c.firstFrame, 100, 1000.0));
        ASSERT_EQ(processor->count, 2u);
        EXPECT_EQ(processor->keys[0], 'a');
        EXPECT_DOUBLE_EQ(processor->values[0], c.a);
        EXPECT_EQ(processor->keys[1], 'b');
        EXPECT_NEAR(processor->values[1], c.b, 1e-5);
    }
}

KRO_REGISTER_CLASS(KROTestAutomatedProcessor, KROTestPassThrough)
