#pragma once
// Firmware images, byte by byte.

#include <string>

namespace image_bytes {

inline std::string padded(std::string text, size_t length, char filling = ' ') {
    text.resize(length, filling);
    return text;
}

inline std::string header(const std::string &text) { return padded(text, 64, '\0'); }

inline std::string section(const std::string &name, const std::string &data) {
    return header(std::to_string(data.size()) + " " + name) + data;
}

// 60 bytes: ACME AP-1 01.02.03 00012003.
inline std::string productBlock() { return padded("ACME                 AP-1                01.02.03 00012003", 60); }

}  // namespace image_bytes
