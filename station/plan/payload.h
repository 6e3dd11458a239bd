#pragma once
// The files of a plan.

#include <filesystem>
#include <memory>
#include <string>

namespace station {

// A file as it was when the plan was loaded: what was measured then is what every board gets, whatever becomes of the
// file.
struct Payload {
    std::string name;                          // the file's, without its folder
    std::shared_ptr<const std::string> bytes;  // shared by the steps and the boards
    std::string md5;                           // 32 lower-case hexadecimal digits
};

// All of a regular file. Throws std::runtime_error, which says why it cannot be read.
std::string readFile(const std::filesystem::path &path);

Payload readPayload(const std::filesystem::path &path);  // throws the same

}  // namespace station
