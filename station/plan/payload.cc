#include "station/plan/payload.h"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>

#include "image/md5.h"

namespace station {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const fs::path &path, const std::string &why) {
    throw std::runtime_error(fmt::format("cannot read {}: {}", path.string(), why));
}

// A pipe or a device would keep the plan from being loaded, or never end.
void mustBeFile(const fs::path &path) {
    std::error_code error;
    const fs::file_type type = fs::status(path, error).type();
    if (type == fs::file_type::directory) error = std::make_error_code(std::errc::is_a_directory);
    if (error) fail(path, error.message());
    if (type != fs::file_type::regular) fail(path, "not a regular file");
}

}  // namespace

std::string readFile(const fs::path &path) {
    mustBeFile(path);
    const std::unique_ptr<FILE, int (*)(FILE *)> file(std::fopen(path.c_str(), "rbe"), std::fclose);
    std::array<char, 65536> part;
    std::string bytes;
    while (file) {
        const size_t length = std::fread(part.data(), 1, part.size(), file.get());
        if (length == 0) break;
        bytes.append(part.data(), length);
    }
    if (!file || std::ferror(file.get()) != 0) fail(path, std::generic_category().message(errno));
    return bytes;
}

Payload readPayload(const fs::path &path) {
    auto bytes = std::make_shared<const std::string>(readFile(path));
    fwimage::Md5 digest;
    digest.feed(*bytes);
    return {path.filename().string(), std::move(bytes), digest.text()};
}

}  // namespace station
