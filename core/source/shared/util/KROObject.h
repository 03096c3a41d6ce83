// The root object of every class of the library: a class name, a description
// for people, and equality and hash by identity unless a class says more.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

class KROObject : public std::enable_shared_from_this<KROObject> {
public:
    KROObject() = default;
    KROObject(const KROObject&) = default;
    KROObject& operator=(const KROObject&) = default;
    virtual ~KROObject() = default;

    static std::string staticClassName() { return "KROObject"; }
    virtual std::string className() const { return staticClassName(); }

    // The text a person reads about the object; the class name unless a class says more.
    virtual std::string description() const { return className(); }

    // Identity unless a class defines value equality.
    virtual bool isEqual(const KROObject& other) const { return this == &other; }
    virtual std::size_t hash() const { return std::hash<const void*>{}(this); }
};

// Declares className() and staticClassName() for a class named Name.
#define KRO_DECLARE_CLASS(Name)                                                                    \
public:                                                                                            \
    static std::string staticClassName() {                                                         \
        return #Name;                                                                              \
    }                                                                                              \
    std::string className() const override {                                                       \
        return staticClassName();                                                                  \
    }
