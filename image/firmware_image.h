#pragma once
// Firmware images as the board reads them: a product block of 60 bytes, sections of a 64-byte header and data, and a
// trailer of 33 bytes that opens with the MD5 digest of everything before it.

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace fwimage {

// Says what is wrong with an argument or an image, in words for the person at the terminal.
struct ImageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Product {
    std::string vendor;   // at most 20 printable characters without a blank
    std::string product;  // at most 19
    std::string version;  // MAJOR.MINOR.PATCH, each 0 to 99
    std::string mark;     // at most 8
};

// A section to write: its name is N.suffix, where N is the number of the MTD block device that receives the file.
struct Source {
    std::string name;
    std::filesystem::path file;
};

// Writes an image. Everything is checked before anything is written, and the file appears whole or not at all.
// Returns warnings, as they stand in Contents. Throws ImageError, or std::runtime_error when it cannot be written.
std::vector<std::string> create(const std::filesystem::path &path, const Product &product,
                                const std::vector<Source> &sources);

struct Section {
    std::string name;
    uint32_t length;
    uint64_t offset;  // of the data in the image
};

struct Contents {
    Product product;  // version as it stands in the block
    std::vector<Section> sections;
    std::string trailer;                // the digest that the image carries
    std::string digest;                 // the digest of its content, which the trailer should carry
    std::string fault;                  // the first thing wrong, from the start of the image; empty for a good one
    std::vector<std::string> warnings;  // for a good image: what is probably a mistake, and what the board will do
};

// Reads an image as far as it can be read. Throws ImageError when the file cannot be, or is too long for a command.
Contents inspectBytes(std::string_view image);
Contents inspect(const std::filesystem::path &path);

}  // namespace fwimage
