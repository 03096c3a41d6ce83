// Helpers for comparing with outside programs: Python scripts, byte files, hex.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "KROPropertyList.h"
#include "KROTestCommand.h"

// Runs the script with /usr/bin/python3; the arguments follow it.
inline KROCommandResult KRORunPython(const std::string& script, const std::string& arguments = "") {
    return KRORunCommand("/usr/bin/python3 - " + arguments + " <<'EOF'\n" + script +
                         (script.ends_with('\n') ? "" : "\n") + "EOF\n");
}

inline void KROWriteFile(const std::filesystem::path& path, std::string_view bytes) {
    std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));
}

inline void KROWriteFile(const std::filesystem::path& path, const KROData& bytes) {
    KROWriteFile(path, std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

inline std::string KROHex(const KROData& data) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (std::uint8_t byte : data) {
        text += {digits[byte >> 4], digits[byte & 15]};
    }
    return text;
}

inline KROData KROBytes(std::string_view text) {
    return KROData(text.begin(), text.end());
}
