// The log line of the plain-function modules: a printf-style format expanded
// into 512 bytes at most and printed to standard error as one line. Each
// module passes its function's name as the first argument, so that every
// line starts with the name of the function that wrote it.
#pragma once

extern "C" {

void kx_log_d(const char* format, ...) __attribute__((format(printf, 1, 2)));
}
