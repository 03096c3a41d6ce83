// The object model of DESIGN.md section 3: class registry, notifications, log.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "KROClassRegistry.h"
#include "KROLog.h"
#include "KRONotificationCenter.h"

namespace {

class KROTestWidget : public KROObject {
    KRO_DECLARE_CLASS(KROTestWidget)
};

class KROTestGadget : public KROTestWidget {
    KRO_DECLARE_CLASS(KROTestGadget)
};

void registerTestClasses() {
    auto& registry = KROClassRegistry::sharedRegistry();
    registry.registerClass("KROTestWidget", "KROObject",
                           [] { return std::make_shared<KROTestWidget>(); });
    registry.registerClass("KROTestGadget", "KROTestWidget",
                           [] { return std::make_shared<KROTestGadget>(); });
}

} // namespace

TEST(KROClassRegistry, AHostCanAddAClassAndMakeObjectsOfIt) {
    registerTestClasses();
    auto& registry = KROClassRegistry::sharedRegistry();
    EXPECT_TRUE(registry.hasClass("KROTestGadget"));
    const auto object = registry.makeObject("KROTestGadget");
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object->className(), "KROTestGadget");
    EXPECT_NE(std::dynamic_pointer_cast<KROTestWidget>(object), nullptr);
}

TEST(KROClassRegistry, AnUnknownNameYieldsNone) {
    EXPECT_EQ(KROClassRegistry::sharedRegistry().makeObject("KRONoSuchClass"), nullptr);
    EXPECT_FALSE(KROClassRegistry::sharedRegistry().hasClass(""));
}

TEST(KROClassRegistry, KindsFollowTheRegisteredSuperclasses) {
    registerTestClasses();
    auto& registry = KROClassRegistry::sharedRegistry();
    EXPECT_TRUE(registry.isKindOfClass("KROTestGadget", "KROTestWidget"));
    EXPECT_TRUE(registry.isKindOfClass("KROTestGadget", "KROObject"));
    EXPECT_FALSE(registry.isKindOfClass("KROTestWidget", "KROTestGadget"));
    EXPECT_EQ(registry.superclassName("KROTestGadget"), "KROTestWidget");
}

TEST(KROClassRegistry, ACyclicRegistrationDoesNotLoop) {
    auto& registry = KROClassRegistry::sharedRegistry();
    registry.registerClass("KROTestCycleA", "KROTestCycleB", nullptr);
    registry.registerClass("KROTestCycleB", "KROTestCycleA", nullptr);
    EXPECT_FALSE(registry.isKindOfClass("KROTestCycleA", "KROObject"));
    EXPECT_EQ(registry.makeObject("KROTestCycleA"), nullptr);
}

TEST(KROClassRegistry, ClassNamesAreSorted) {
    registerTestClasses();
    const auto names = KROClassRegistry::sharedRegistry().classNames();
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
}

TEST(KRONotificationCenter, ObserversOfANameReceiveItsNotificationsInOrder) {
    auto& center = KRONotificationCenter::defaultCenter();
    std::vector<std::string> received;
    const auto first = center.addObserver("KROTestNotification", [&](const KRONotification& n) {
        received.push_back("first " + n.name);
    });
    const auto second = center.addObserver("KROTestNotification", [&](const KRONotification& n) {
        received.push_back("second " + *n.userInfo.objectForKey("value")->stringValue());
    });
    const auto other = center.addObserver("KROOtherNotification",
                                          [&](const KRONotification&) { received.push_back("x"); });
    KROPropertyList info;
    info.setObjectForKey("value", "v");
    center.postNotification("KROTestNotification", nullptr, info);
    center.removeObserver(first);
    center.removeObserver(second);
    center.removeObserver(other);
    EXPECT_EQ(received, (std::vector<std::string>{"first KROTestNotification", "second v"}));
}

TEST(KRONotificationCenter, ARemovedObserverIsNotCalled) {
    auto& center = KRONotificationCenter::defaultCenter();
    int calls = 0;
    const auto token =
        center.addObserver("KROTestRemoved", [&](const KRONotification&) { ++calls; });
    center.postNotification("KROTestRemoved");
    center.removeObserver(token);
    center.postNotification("KROTestRemoved");
    EXPECT_EQ(calls, 1);
}

TEST(KRONotificationCenter, AnObserverMayRemoveAnotherDuringDelivery) {
    auto& center = KRONotificationCenter::defaultCenter();
    int laterCalls = 0;
    KRONotificationCenter::Token later = 0;
    const auto first = center.addObserver(
        "KROTestReentrant", [&](const KRONotification&) { center.removeObserver(later); });
    later = center.addObserver("KROTestReentrant", [&](const KRONotification&) { ++laterCalls; });
    center.postNotification("KROTestReentrant");
    center.removeObserver(first);
    EXPECT_EQ(laterCalls, 0);
}

TEST(KRONotificationCenter, PostingFromManyThreadsDeliversEveryNotification) {
    auto& center = KRONotificationCenter::defaultCenter();
    std::atomic<int> calls{0};
    const auto token =
        center.addObserver("KROTestThreads", [&](const KRONotification&) { ++calls; });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 250; ++i) {
                center.postNotification("KROTestThreads");
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    center.removeObserver(token);
    EXPECT_EQ(calls.load(), 1000);
}

TEST(KROLog, AReplacedSinkReceivesTheExactFormattedLines) {
    std::vector<std::string> lines;
    KROSetLogSink([&](const std::string& line) { lines.push_back(line); });
    KROLog("KRODeque could not allocate %lu bytes", 4096ul);
    KROLog("%@ has %d channels", std::string("stream"), 2);
    KROSetLogSink({});
    EXPECT_EQ(lines, (std::vector<std::string>{"KRODeque could not allocate 4096 bytes",
                                               "stream has 2 channels"}));
}
