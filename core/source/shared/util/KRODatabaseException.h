// What the database classes throw. Their failures are programming errors or
// a database that cannot go on (a statement that does not prepare, a bind out
// of range, a step that fails), so they unwind out of the calling operation
// instead of coming back as error objects; a host that can recover catches
// this type. The message is the failure's own text; file and line name the
// place in the library that raised it.
#pragma once

#include <stdexcept>
#include <string>

class KRODatabaseException : public std::runtime_error {
public:
    KRODatabaseException(const std::string& message, const char* file, int line)
        : std::runtime_error(message), file_(file), line_(line) {}

    const char* file() const { return file_; }
    int line() const { return line_; }

private:
    const char* file_;
    int line_;
};

// Raises message, formatted with printf arguments, from the calling place.
#define KRO_DATABASE_RAISE(...) KRODatabaseRaise(__FILE__, __LINE__, __VA_ARGS__)

[[noreturn]] void KRODatabaseRaise(const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
