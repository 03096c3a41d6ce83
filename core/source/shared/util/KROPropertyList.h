// The property dictionary of settings, descriptions and properties: a value
// that is one of string, integer, real, boolean, date, data, array or
// dictionary. Dictionaries keep the order in which keys were first inserted.
// Read and written as XML property lists through libplist; binary lists are
// accepted on read.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

class KROError;
using KROErrorPtr = std::shared_ptr<KROError>;
using KROData = std::vector<std::uint8_t>;
using KRODate = std::chrono::system_clock::time_point;

class KROPropertyList {
public:
    enum class Type { String, Integer, Real, Boolean, Date, Data, Array, Dictionary };

    using Array = std::vector<KROPropertyList>;
    // An ordered dictionary: insertion order is kept, a key appears once.
    using Entry = std::pair<std::string, KROPropertyList>;
    using Dictionary = std::vector<Entry>;

    // An empty dictionary.
    KROPropertyList();
    KROPropertyList(std::string value);
    KROPropertyList(const char* value);
    KROPropertyList(std::int64_t value);
    KROPropertyList(int value) : KROPropertyList(std::int64_t{value}) {}
    KROPropertyList(unsigned value) : KROPropertyList(std::int64_t{value}) {}
    KROPropertyList(long long value) : KROPropertyList(static_cast<std::int64_t>(value)) {}
    KROPropertyList(unsigned long value) : KROPropertyList(static_cast<std::int64_t>(value)) {}
    KROPropertyList(double value);
    KROPropertyList(bool value);
    KROPropertyList(KRODate value);
    KROPropertyList(KROData value);
    KROPropertyList(Array value);
    KROPropertyList(Dictionary value);

    static KROPropertyList array() { return KROPropertyList(Array{}); }
    static KROPropertyList dictionary() { return KROPropertyList(Dictionary{}); }

    Type type() const;
    bool isString() const { return type() == Type::String; }
    bool isInteger() const { return type() == Type::Integer; }
    bool isReal() const { return type() == Type::Real; }
    // Integer or real.
    bool isNumber() const { return isInteger() || isReal(); }
    bool isBoolean() const { return type() == Type::Boolean; }
    bool isDate() const { return type() == Type::Date; }
    bool isData() const { return type() == Type::Data; }
    bool isArray() const { return type() == Type::Array; }
    bool isDictionary() const { return type() == Type::Dictionary; }

    // Typed reads; each returns null when the value is of another kind.
    const std::string* stringValue() const;
    const std::int64_t* integerValue() const;
    const double* realValue() const;
    const bool* booleanValue() const;
    const KRODate* dateValue() const;
    const KROData* dataValue() const;
    const Array* arrayValue() const;
    Array* arrayValue();
    const Dictionary* dictionaryValue() const;
    Dictionary* dictionaryValue();

    // Number reads that accept integers, reals and booleans, as a number object
    // of the platform would; the fallback when the value is of another kind.
    double doubleValue(double fallback = 0.0) const;
    std::int64_t longValue(std::int64_t fallback = 0) const;
    bool boolValue(bool fallback = false) const;

    // Dictionary access. objectForKey is null when absent or not a dictionary.
    const KROPropertyList* objectForKey(std::string_view key) const;
    KROPropertyList* objectForKey(std::string_view key);
    // Replaces the value of an existing key in place, else appends.
    // Does nothing when this value is not a dictionary.
    void setObjectForKey(std::string_view key, KROPropertyList value);
    void removeObjectForKey(std::string_view key);
    std::vector<std::string> allKeys() const;

    // Array access. objectAtIndex is null past the end or when not an array.
    const KROPropertyList* objectAtIndex(std::size_t index) const;
    void addObject(KROPropertyList value);

    // Elements of an array, entries of a dictionary, else 0.
    std::size_t count() const;

    bool operator==(const KROPropertyList& other) const;
    bool operator!=(const KROPropertyList& other) const { return !(*this == other); }

    // Reading. Malformed input fails with KROCocoaError 3840 (the platform's
    // property list read corrupt code); a file that cannot be read fails with
    // the KROFileError of its errno (KRONSError::errorWithErrno).
    static std::shared_ptr<KROPropertyList> fromData(const void* bytes, std::size_t length,
                                                     KROErrorPtr* error = nullptr);
    static std::shared_ptr<KROPropertyList> fromFile(const std::filesystem::path& path,
                                                     KROErrorPtr* error = nullptr);

    // The text a person reads, in the platform's form: a string as it is,
    // numbers in decimal (reals in their shortest exact form, booleans as 1
    // and 0), dates as "2001-01-01 00:00:00 +0000" in UTC, data as
    // "{length = 2, bytes = 0x0a0b}", arrays as "(\n    a,\n    b\n)" and
    // dictionaries as "{\n    key = value;\n}", nested levels indented further.
    std::string description() const;

    // Writing as an XML property list (reals to 17 significant digits).
    std::string toXML() const;
    bool writeToFile(const std::filesystem::path& path, KROErrorPtr* error = nullptr) const;

private:
    std::variant<std::string, std::int64_t, double, bool, KRODate, KROData, Array, Dictionary>
        value_;
};
