// The object model: the class registry, notifications and the log sink.
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

} // namespace

// Objects by name; kinds follow superclasses; unknown names and cycles give nothing.
TEST(KROClassRegistry, MakesObjectsOfRegisteredClassesByName) {
    auto& registry = KROClassRegistry::sharedRegistry();
    registry.registerClass("KROTestWidget", "KROObject",
                           [] { return std::make_shared<KROTestWidget>(); });
    registry.registerClass("KROTestGadget", "KROTestWidget",
                           [] { return std::make_shared<KROTestGadget>(); });
    registry.registerClass("KROTestCycleA", "KROTestCycleB", nullptr);
    registry.registerClass("KROTestCycleB", "KROTestCycleA", nullptr);
    const auto object = registry.makeObject("KROTestGadget");
    EXPECT_EQ(object->className(), "KROTestGadget");
    EXPECT_NE(std::dynamic_pointer_cast<KROTestWidget>(object), nullptr);
    EXPECT_TRUE(registry.isKindOfClass("KROTestGadget", "KROObject"));
    EXPECT_FALSE(registry.isKindOfClass("KROTestWidget", "KROTestGadget"));
    EXPECT_FALSE(registry.isKindOfClass("KROTestCycleA", "KROObject"));
    EXPECT_EQ(registry.superclassName("KROTestGadget"), "KROTestWidget");
    EXPECT_EQ(registry.makeObject("KRONoSuchClass"), nullptr);
    EXPECT_EQ(registry.makeObject("KROTestCycleA"), nullptr);
    const auto names = registry.classNames();
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
}

// Observers get their notifications in order; one removed, even while
// delivering, gets nothing; posts from many threads all arrive.
TEST(KRONotificationCenter, DeliversToTheObserversOfANameInOrder) {
    auto& center = KRONotificationCenter::defaultCenter();
    std::vector<std::string> received;
    KRONotificationCenter::Token late = 0;
    const auto add = [&](const char* name, std::function<void(const KRONotification&)> observer) {
        return center.addObserver(name, std::move(observer));
    };
    const KRONotificationCenter::Token tokens[] = {
        add("KROTestNotice", [&](const auto& n) { received.push_back("first " + n.name); }),
        add("KROTestNotice",
            [&](const auto& n) {
                received.push_back(*n.userInfo.objectForKey("value")->stringValue());
                center.removeObserver(late);
            }),
        late = add("KROTestNotice", [&](const auto&) { received.push_back("late"); }),
        add("KROOther", [&](const auto&) { received.push_back("other"); })};
    KROPropertyList info;
    info.setObjectForKey("value", "v");
    center.postNotification("KROTestNotice", nullptr, info);
    for (const auto token : tokens) {
        center.removeObserver(token);
    }
    center.postNotification("KROTestNotice", nullptr, info);
    EXPECT_EQ(received, (std::vector<std::string>{"first KROTestNotice", "v"}));
    std::atomic<int> calls{0};
    const auto token = add("KROTestThreads", [&](const auto&) { ++calls; });
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
