// Bytes as recordings hold them.
#pragma once

#include <string>

// Blanks between the bytes do not count.
inline std::string from_hex(std::string hex) {
    std::erase(hex, ' ');
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
}
