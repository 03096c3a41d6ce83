// While it lives, an application runs and every error shown by alert() is collected.
#pragma once

#include <memory>
#include <vector>

#include "KROError.h"

class KROAlertCatcher {
public:
    KROAlertCatcher() {
        KROError::setAlertHost({[] { return true; },
                                [this](std::shared_ptr<const KROError> error) {
                                    alerts.push_back(std::move(error));
                                }});
    }
    ~KROAlertCatcher() { KROError::setAlertHost({}); }
    KROAlertCatcher(const KROAlertCatcher&) = delete;
    KROAlertCatcher& operator=(const KROAlertCatcher&) = delete;

    std::vector<std::shared_ptr<const KROError>> alerts;
};
