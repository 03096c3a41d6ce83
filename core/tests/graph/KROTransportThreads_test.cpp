// A host thread changes the transport while a render thread pulls (`make tsan` checks it).
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cmath>
#include <thread>

#include "KROAudioAutomation.h"
#include "KROConductorAudioProcessor.h"
#include "KROFaderAudioProcessor.h"
#include "KROHingeAudioProcessor.h"
#include "KROShapingTestSupport.h"

using namespace kro_shaping_test;

TEST(KROTransportThreads, HostEditsWhileTheRenderThreadPullsThroughHingeConductorAndFader) {
    const Graph chain = graph(
        {entry("KROHingeAudioProcessor", "hinge"), entry("KROConductorAudioProcessor", "conductor"),
         entry("KROFaderAudioProcessor", "fader"), entry("KROTestGenerator", "generator")},
        {}, 2, 512);
    auto output = chain.head;
    auto hinge = chain.get<KROHingeAudioProcessor>("hinge");
    auto conductor = chain.get<KROConductorAudioProcessor>("conductor");
    auto fader = chain.get<KROFaderAudioProcessor>("fader");
    conductor->start();

    alarm(120);
    std::atomic<bool> rendering{true};
    int outOfRange = 0;
    std::thread host([&] {
        for (int round = 0; rendering.load(); ++round) {
            auto landmark = KROConductorLandmark::landmark();
            landmark->setLocation((round % 50) * 0.01);
            landmark->setJumpWhenForward(round % 3 == 0);
            landmark->setReverseDirectionWhenForward(round % 5 == 0);
            landmark->setReverseDirectionWhenReverse(true);
            conductor->insertObjectInLandmarksAtIndex(landmark, 0);
            landmark->setStopWhenForward(round % 7 == 0);
            if (conductor->countOfLandmarks() > 4) {
                conductor->removeObjectFromLandmarksAtIndex(4);
            }
            if (round % 11 == 0) {
                conductor->setLocation((round % 13) * 0.02);
                conductor->start();
            }
            fader->setGain(-float(round % 20));
            auto automation = KROAudioAutomation::automation();
            automation->setParameterKey(round % 2 ? "gain" : "scalar");
            automation->setLocation((round % 40) * 0.01);
            automation->setLength(0.05);
            automation->setMinimum(round % 2 ? -20.0f : 0.0f);
            fader->insertAutomationsAtIndexes({automation}, {0});
            {
                const std::lock_guard edit(fader->automationsLock());
                fader->objectInAutomationsAtIndex(0)->valueMap().setType(round % 4 ? "cubic"
                                                                                   : "segmented");
            }
            if (fader->countOfAutomations() > 3) {
                fader->removeAutomationsAtIndexes({3});
            }
            std::this_thread::yield();
        }
    });
    std::thread render([&] {
        for (int block = 0; block < 400; ++block) {
            output->renderBlock();
            hinge->queue()->sync([] {});
            // The source is 0.5 and no gain here rises above 1.
            const float last = output->buffer->valueAtFrame(511, 1);
            outOfRange += std::isfinite(last) && std::fabs(last) <= 0.5f ? 0 : 1;
        }
        rendering.store(false);
    });
    render.join();
    host.join();
    alarm(0);
    EXPECT_EQ(outOfRange, 0);
    EXPECT_EQ(hinge->latency(), KROHingeAudioProcessor::decoupledLatency);
}
