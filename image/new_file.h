#pragma once
// A file that appears whole or not at all.

#include <filesystem>
#include <string>
#include <string_view>

namespace fwimage {

// A new file that replaces `path`, or the regular file that links of this name lead to, when it is kept; until then,
// and without that, what was there stays. Every failure throws std::runtime_error, and so does anything else of this
// name: a device, a FIFO, a folder.
class NewFile {
public:
    explicit NewFile(const std::filesystem::path &path);
    ~NewFile();
    NewFile(const NewFile &) = delete;
    NewFile &operator=(const NewFile &) = delete;

    void write(std::string_view bytes);
    // `durable`: the content is on the disk before the file is there.
    void keep(bool durable = true);

private:
    std::filesystem::path path_;
    std::string temporary_;
    int descriptor_;
};

}  // namespace fwimage
