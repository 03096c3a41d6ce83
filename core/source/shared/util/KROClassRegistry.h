// The class registry: class names in data select classes. Every processor,
// automation, handler and overview class registers itself; hosts add their own.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "KROObject.h"

class KROClassRegistry {
public:
    using Factory = std::function<std::shared_ptr<KROObject>()>;

    static KROClassRegistry& sharedRegistry();

    // Adds or replaces a class. The superclass name lets callers ask whether
    // a registered class is a kind of another (a processor, a handler ...).
    void registerClass(const std::string& name, const std::string& superclassName, Factory factory);

    bool hasClass(const std::string& name) const;
    // A new object of the class, or null when the name is unknown.
    std::shared_ptr<KROObject> makeObject(const std::string& name) const;
    // True when name is kindName or inherits from it through registered classes.
    bool isKindOfClass(const std::string& name, const std::string& kindName) const;
    std::string superclassName(const std::string& name) const;
    // All registered names in alphabetical order.
    std::vector<std::string> classNames() const;

private:
    struct Entry {
        std::string superclassName;
        Factory factory;
    };

    mutable std::mutex lock_;
    std::map<std::string, Entry> classes_;
};

// Registers a class at load time: KRO_REGISTER_CLASS(KROFoo, KROAudioProcessor).
#define KRO_REGISTER_CLASS(Name, Superclass)                                                       \
    namespace {                                                                                    \
    const bool Name##Registered = [] {                                                             \
        KROClassRegistry::sharedRegistry().registerClass(#Name, #Superclass, [] {                  \
            return std::static_pointer_cast<KROObject>(std::make_shared<Name>());                  \
        });                                                                                        \
        return true;                                                                               \
    }();                                                                                           \
    }
