// The serial queue: order, a full ring that refuses at once, a real-time hand-over, the worker.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <future>
#include <mutex>
#include <numeric>
#include <thread>
#include <vector>

#include "KROAllocationGuard.h"
#include "KROSerialQueue.h"

namespace {

struct Log {
    std::mutex lock;
    std::vector<int> entries;
};

void logPayload(void* context, const void* payload) {
    auto* log = static_cast<Log*>(context);
    const std::lock_guard guard(log->lock);
    log->entries.push_back(*static_cast<const int*>(payload));
}

bool realtimePermitted() {
    bool permitted = false;
    std::thread([&] {
        const sched_param parameter{sched_get_priority_min(SCHED_FIFO)};
        permitted = pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameter) == 0;
    }).join();
    return permitted;
}

} // namespace

TEST(KROSerialQueue, TasksRunInTheOrderGivenAndSyncWaitsForThemAll) {
    Log log;
    KROSerialQueue queue("com.krotect.test", KROSerialQueue::Priority::normal, 256);
    for (int i = 0; i < 200; ++i) {
        if (i % 3 == 0) {
            queue.async([&log, i] { logPayload(&log, &i); });
        } else {
            EXPECT_TRUE(queue.async(logPayload, &log, i));
        }
    }
    queue.sync([] {});
    std::vector<int> inOrder(200);
    std::iota(inOrder.begin(), inOrder.end(), 0);
    EXPECT_EQ(log.entries, inOrder);
    // From inside one of its tasks sync runs at once.
    bool ran = false;
    queue.sync([&] { queue.sync([&] { ran = true; }); });
    EXPECT_TRUE(ran);
}

TEST(KROSerialQueue, AFullRingRefusesTheRenderThreadWithoutWaitingOrAllocating) {
    Log log;
    std::promise<void> entered;
    std::promise<void> open;
    {
        KROSerialQueue queue("com.krotect.test", KROSerialQueue::Priority::normal, 2);
        queue.async([&] {
            entered.set_value();
            open.get_future().wait();
        });
        entered.get_future().wait();
        KRO_EXPECT_NO_ALLOCATION({
            EXPECT_TRUE(queue.async(logPayload, &log, 1));
            EXPECT_TRUE(queue.async(logPayload, &log, 2));
            EXPECT_FALSE(queue.async(logPayload, &log, 3));
        });
        open.set_value();
        // Destruction runs what is queued.
    }
    EXPECT_EQ(log.entries, (std::vector<int>{1, 2}));
}

TEST(KROSerialQueue, TheWorkerBearsItsNameAndARaisedPriorityWhereTheSystemAllows) {
    KROSerialQueue queue("com.krotect.KROHingeAudioProcessor", KROSerialQueue::Priority::high);
    char name[16] = {};
    int policy = -1;
    queue.sync([&] {
        pthread_getname_np(pthread_self(), name, sizeof name);
        sched_param parameter{};
        pthread_getschedparam(pthread_self(), &policy, &parameter);
    });
    EXPECT_STREQ(name, "KROHingeAudioPr");
    EXPECT_EQ(queue.hasRaisedPriority(), realtimePermitted());
    EXPECT_EQ(policy, queue.hasRaisedPriority() ? SCHED_FIFO : SCHED_OTHER);
}
