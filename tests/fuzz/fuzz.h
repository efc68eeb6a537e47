// What the fuzz functions share.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

// Ends the process, which is a finding, when something does not hold.
inline void check(bool holds) {
    if (!holds)
        std::abort();
}

inline std::string_view text_of(const uint8_t *data, size_t size) {
    return {reinterpret_cast<const char *>(data), size};
}
inline const uint8_t *bytes_of(std::string_view text) {
    return reinterpret_cast<const uint8_t *>(text.data());
}

// Reads an input as a sequence of decisions. Behind its end everything is zero or empty.
class Input {
    std::string_view rest_;
    size_t allowance_;

  public:
    // `allowance` bounds the length of all texts that say themselves longer than they are.
    Input(const uint8_t *data, size_t size, size_t allowance)
        : rest_(text_of(data, size)), allowance_(allowance) {}
    bool empty() const { return rest_.empty(); }
    std::string_view piece(size_t size) {
        const std::string_view taken = rest_.substr(0, size);
        rest_.remove_prefix(taken.size());
        return taken;
    }
    unsigned byte() { return empty() ? 0 : static_cast<uint8_t>(piece(1)[0]); }
    unsigned number() {
        const unsigned high = byte();
        return high << 8 | byte();
    }
    // Up to 191 bytes as they stand or, so that a small input can say it, a piece that is repeated
    // up to 4095 bytes, or 65535 times `stretch`.
    std::string text(size_t stretch = 1) {
        const unsigned code = byte();
        if (code < 192)
            return std::string(piece(code));
        const size_t said = code == 255 ? number() * stretch : number() % 4096;
        const size_t size = said < allowance_ ? said : allowance_;
        allowance_ -= size;
        std::string text(piece(1 + code % 16).substr(0, size));
        while (!text.empty() && text.size() < size)
            text.append(text, 0, size - text.size());
        return text;
    }
};
