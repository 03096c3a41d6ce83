#include "kx_log.h"

#include <cstdarg>
#include <cstdio>

extern "C" void kx_log_d(const char* format, ...) {
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    std::fprintf(stderr, "%s\n", line);
}
