// The stream behaviour that KROFileReader and KROFileWriter share:
// positions through ftello and fseeko, failures as KROFileError carrying errno.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>

class KROError;
using KROErrorPtr = std::shared_ptr<KROError>;

class KROFileStream {
public:
    // The size of the stdio buffer given to every stream. Larger than the
    // default page so that the handlers' small reads of headers and values
    // cost one system call per 64 KiB; requests of this size or more bypass
    // it and go straight to read() and write().
    static constexpr std::size_t bufferSize = std::size_t{64} << 10;

    // Opens path in a mode of fopen with the buffer above; null and errno on failure.
    static std::FILE* open(const char* path, const char* mode);

    static bool getPosition(std::FILE* file, std::uint64_t& position, KROErrorPtr* error);
    static bool setPosition(std::FILE* file, std::uint64_t position, KROErrorPtr* error);
    static bool setPositionToEnd(std::FILE* file, KROErrorPtr* error);
};
