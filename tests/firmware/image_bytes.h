#pragma once
// Firmware images, byte by byte.

#include <string>

namespace image_bytes {

inline std::string header(std::string text) {
    text.resize(64, '\0');
    return text;
}

inline std::string section(const std::string &name, const std::string &data) {
    return header(std::to_string(data.size()) + " " + name) + data;
}

// 60 bytes: ACME AP-1 01.02.03 00012003.
inline std::string productBlock() {
    std::string block = "ACME                 AP-1                01.02.03 00012003";
    block.resize(60, ' ');
    return block;
}

}  // namespace image_bytes
