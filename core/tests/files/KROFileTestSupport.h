// File test helpers: a private directory, a builder of bytes, whole-file reads and writes.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "../util/KROScratchDirectory.h"

using KROData = std::vector<std::uint8_t>;

// One scratch directory class serves every test folder.
using KROTemporaryDirectory = KROScratchDirectory;

// Bytes of a file, built in order: KROTestBytes().text("RIFF").le32(4).text("WAVE").
class KROTestBytes {
public:
    KROTestBytes& text(std::string_view text) {
        bytes_.insert(bytes_.end(), text.begin(), text.end());
        return *this;
    }
    KROTestBytes& le(std::uint64_t value, std::size_t width) {
        for (std::size_t i = 0; i < width; ++i) {
            bytes_.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
        }
        return *this;
    }
    KROTestBytes& be(std::uint64_t value, std::size_t width) {
        for (std::size_t i = width; i-- > 0;) {
            bytes_.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
        }
        return *this;
    }
    KROTestBytes& le32(std::uint64_t value) { return le(value, 4); }
    KROTestBytes& be32(std::uint64_t value) { return be(value, 4); }
    KROTestBytes& fill(std::size_t count, std::uint8_t byte = 0) {
        bytes_.insert(bytes_.end(), count, byte);
        return *this;
    }
    KROTestBytes& bytes(const KROData& data) {
        bytes_.insert(bytes_.end(), data.begin(), data.end());
        return *this;
    }
    const KROData& data() const { return bytes_; }
    std::size_t size() const { return bytes_.size(); }

private:
    KROData bytes_;
};

inline KROData bytesOf(std::string_view text) {
    return KROData(text.begin(), text.end());
}

inline void KROWriteTestFile(const std::filesystem::path& path, const KROData& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    ASSERT_TRUE(file.good()) << path;
}

inline KROData KROReadTestFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return KROData(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}
