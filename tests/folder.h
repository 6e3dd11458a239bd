#pragma once
// A folder that ends with its test.

#include <cstdlib>
#include <fstream>

#include "station/base/file.h"

struct Folder {
    Folder() {
        std::string name = "/tmp/test-XXXXXX";
        path = mkdtemp(name.data());
    }
    ~Folder() { std::filesystem::remove_all(path); }
    Folder(const Folder &) = delete;

    // Returns the file's path.
    std::filesystem::path write(const std::string &name, const std::string &content) const {
        std::ofstream(path / name, std::ios::binary) << content;
        return path / name;
    }

    std::filesystem::path path;
};

inline std::string contentOf(const std::filesystem::path &path) {
    return station::readFileIfThere(path, 1 << 30).value_or("");
}
