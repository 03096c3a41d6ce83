#include "KROClassRegistry.h"

KROClassRegistry& KROClassRegistry::sharedRegistry() {
    static KROClassRegistry registry;
    return registry;
}

void KROClassRegistry::registerClass(const std::string& name, const std::string& superclassName,
                                     Factory factory) {
    std::lock_guard guard(lock_);
    classes_[name] = Entry{superclassName, std::move(factory)};
}

bool KROClassRegistry::hasClass(const std::string& name) const {
    std::lock_guard guard(lock_);
    return classes_.count(name) != 0;
}

std::shared_ptr<KROObject> KROClassRegistry::makeObject(const std::string& name) const {
    Factory factory;
    {
        std::lock_guard guard(lock_);
        const auto found = classes_.find(name);
        if (found == classes_.end() || !found->second.factory) {
            return nullptr;
        }
        factory = found->second.factory;
    }
    return factory();
}

bool KROClassRegistry::isKindOfClass(const std::string& name, const std::string& kindName) const {
    std::lock_guard guard(lock_);
    std::string current = name;
    // The walk is bounded by the number of classes so that a host's cyclic
    // registration cannot loop for ever.
    for (std::size_t step = 0; step <= classes_.size(); ++step) {
        if (current == kindName) {
            return true;
        }
        const auto found = classes_.find(current);
        if (found == classes_.end()) {
            return false;
        }
        current = found->second.superclassName;
    }
    return false;
}

std::string KROClassRegistry::superclassName(const std::string& name) const {
    std::lock_guard guard(lock_);
    const auto found = classes_.find(name);
    return found == classes_.end() ? std::string() : found->second.superclassName;
}

std::vector<std::string> KROClassRegistry::classNames() const {
    std::lock_guard guard(lock_);
    std::vector<std::string> names;
    names.reserve(classes_.size());
    for (const auto& [name, entry] : classes_) {
        names.push_back(name);
    }
    return names;
}
