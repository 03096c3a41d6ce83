// Notifications: names are fixed strings that the posting class defines.
// Observers are called synchronously on the posting thread, in the order they
// were added.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "KROObject.h"
#include "KROPropertyList.h"

struct KRONotification {
    std::string name;
    std::shared_ptr<KROObject> object;
    KROPropertyList userInfo;
};

class KRONotificationCenter {
public:
    using Token = std::uint64_t;
    using Callback = std::function<void(const KRONotification&)>;

    static KRONotificationCenter& defaultCenter();

    // An empty name observes every notification.
    Token addObserver(const std::string& name, Callback callback);
    // After this returns no delivery that starts later calls the callback; a
    // delivery already running on another thread may still finish.
    void removeObserver(Token token);
    void postNotification(const std::string& name, std::shared_ptr<KROObject> object = nullptr,
                          KROPropertyList userInfo = KROPropertyList::dictionary());

private:
    struct Observer {
        Token token;
        std::string name;
        std::shared_ptr<Callback> callback;
    };

    std::mutex lock_;
    std::vector<Observer> observers_;
    Token nextToken_ = 1;
};
