// The bytes of the current fuzz input as a file in memory, reached by a path,
// for targets whose readers open files.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

inline std::string KROFuzzInputPath(const std::uint8_t* data, std::size_t size) {
    static const int descriptor = ::memfd_create("fuzz-input", 0);
    if (::ftruncate(descriptor, 0) != 0 ||
        ::pwrite(descriptor, data, size, 0) != static_cast<ssize_t>(size)) {
        __builtin_trap();
    }
    return "/proc/self/fd/" + std::to_string(descriptor);
}
