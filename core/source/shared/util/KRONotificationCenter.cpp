#include "KRONotificationCenter.h"

#include <algorithm>

KRONotificationCenter& KRONotificationCenter::defaultCenter() {
    static KRONotificationCenter center;
    return center;
}

KRONotificationCenter::Token KRONotificationCenter::addObserver(const std::string& name,
                                                                Callback callback) {
    std::lock_guard guard(lock_);
    const Token token = nextToken_++;
    observers_.push_back({token, name, std::make_shared<Callback>(std::move(callback))});
    return token;
}

void KRONotificationCenter::removeObserver(Token token) {
    std::lock_guard guard(lock_);
    std::erase_if(observers_,
                  [token](const Observer& observer) { return observer.token == token; });
}

void KRONotificationCenter::postNotification(const std::string& name,
                                             std::shared_ptr<KROObject> object,
                                             KROPropertyList userInfo) {
    const KRONotification notification{name, std::move(object), std::move(userInfo)};
    std::vector<Observer> receivers;
    {
        std::lock_guard guard(lock_);
        for (const Observer& observer : observers_) {
            if (observer.name.empty() || observer.name == name) {
                receivers.push_back(observer);
            }
        }
    }
    for (const Observer& observer : receivers) {
        bool stillObserving = false;
        {
            std::lock_guard guard(lock_);
            stillObserving =
                std::any_of(observers_.begin(), observers_.end(),
                            [&](const Observer& o) { return o.token == observer.token; });
        }
        if (stillObserving) {
            (*observer.callback)(notification);
        }
    }
}
