#include "KRODatabaseException.h"

#include <cstdarg>
#include <cstdio>
#include <vector>

void KRODatabaseRaise(const char* file, int line, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    va_list measuring;
    va_copy(measuring, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, measuring);
    va_end(measuring);
    std::vector<char> text(static_cast<std::size_t>(length > 0 ? length : 0) + 1);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    throw KRODatabaseException(text.data(), file, line);
}
