// Format strings taken from data, in the string table's own style: a string
// table text is never handed to printf. Supported conversions:
//   %@ (an object's description or a string), %d %i %ld %lu %qi %lld %llu %u
//   %c %x %X %o %f %e %g (with precision, e.g. %.3f), %s, %%,
//   flags "-+ #0", a width, a precision, and positional "%1$@".
// A malformed or hostile format never crashes and never reads past the given
// arguments: a conversion with no argument left writes nothing, a malformed
// specifier is written out as it stands.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

class KROObject;

// One argument of a format. Integers keep their signedness so that %lu of a
// negative value prints as the platform's unsigned 64-bit value would.
class KROFormatArgument {
public:
    using Value = std::variant<std::int64_t, std::uint64_t, double, std::string>;

    KROFormatArgument(bool value) : value_(std::int64_t{value}) {}
    KROFormatArgument(char value) : value_(std::int64_t{value}) {}
    KROFormatArgument(signed char value) : value_(std::int64_t{value}) {}
    KROFormatArgument(unsigned char value) : value_(std::uint64_t{value}) {}
    KROFormatArgument(short value) : value_(std::int64_t{value}) {}
    KROFormatArgument(unsigned short value) : value_(std::uint64_t{value}) {}
    KROFormatArgument(int value) : value_(std::int64_t{value}) {}
    KROFormatArgument(unsigned value) : value_(std::uint64_t{value}) {}
    KROFormatArgument(long value) : value_(std::int64_t{value}) {}
    KROFormatArgument(unsigned long value) : value_(std::uint64_t{value}) {}
    KROFormatArgument(long long value) : value_(std::int64_t{value}) {}
    KROFormatArgument(unsigned long long value) : value_(std::uint64_t{value}) {}
    KROFormatArgument(float value) : value_(double{value}) {}
    KROFormatArgument(double value) : value_(value) {}
    KROFormatArgument(const char* value) : value_(std::string(value ? value : "(null)")) {}
    KROFormatArgument(std::string value) : value_(std::move(value)) {}
    KROFormatArgument(std::string_view value) : value_(std::string(value)) {}
    KROFormatArgument(const KROObject& object);
    KROFormatArgument(const std::shared_ptr<KROObject>& object);
    template <typename T>
    KROFormatArgument(const std::shared_ptr<T>& object)
        : KROFormatArgument(std::static_pointer_cast<KROObject>(object)) {}

    const Value& value() const { return value_; }

private:
    Value value_;
};

std::string KROStringWithFormat(std::string_view format,
                                const std::vector<KROFormatArgument>& arguments);

template <typename... Arguments>
std::string KROStringWithFormatArguments(std::string_view format, Arguments&&... arguments) {
    return KROStringWithFormat(format, {KROFormatArgument(arguments)...});
}
