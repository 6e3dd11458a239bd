#pragma once
// The files of a plan.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

namespace station {

// A file as it was when the plan was loaded. Every board gets these bytes, even if the file changes later.
struct Payload {
    std::string name;                          // the file's, without its folder
    std::shared_ptr<const std::string> bytes;  // shared by the steps and the boards
    std::string md5, sha256;                   // 32 and 64 lower-case hexadecimal digits
};

// A file that a step of the plan sends, compares with or reads, for the records.
struct PlanFile {
    size_t step = 0;   // from 1
    std::string name;  // as the plan calls it
    uint64_t size = 0;
    std::string sha256;  // 64 lower-case hexadecimal digits
};

// Returns the media type of a picture that browsers show, by its first bytes; null: it is not one.
const char *pictureType(std::string_view bytes);

constexpr size_t kLargestPicture = 1 << 20;       // bytes
constexpr uint64_t kLargestPayload = 2147483647;  // bytes, the most that a command can announce

// Reads a file and computes its digests. Throws std::runtime_error, which says why the file cannot be read.
Payload readPayload(const std::filesystem::path &path);

}  // namespace station
