// The bytes of the current fuzz input as a file in memory, reached by a path,
// for targets whose readers open files; and a folder in memory for targets
// that lay an input out as several files.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

inline std::string KROFuzzInputPath(const std::uint8_t* data, std::size_t size) {
    static const int descriptor = ::memfd_create("fuzz-input", 0);
    if (::ftruncate(descriptor, 0) != 0 ||
        ::pwrite(descriptor, data, size, 0) != static_cast<ssize_t>(size)) {
        __builtin_trap();
    }
    return "/proc/self/fd/" + std::to_string(descriptor);
}

// A folder of this process under /dev/shm, made on first use and removed
// when the process exits.
inline const std::filesystem::path& KROFuzzScratchDirectory() {
    struct Directory {
        std::filesystem::path path =
            std::filesystem::path("/dev/shm") / ("krocore-fuzz-" + std::to_string(::getpid()));
        Directory() { std::filesystem::create_directories(path); }
        ~Directory() {
            std::error_code ignored;
            std::filesystem::remove_all(path, ignored);
        }
    };
    static const Directory directory;
    return directory.path;
}
