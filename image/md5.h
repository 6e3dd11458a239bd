#pragma once
// MD5 digests as md5sum prints them: 32 lower-case hexadecimal digits.

#include <filesystem>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace fwimage {

class Md5 {
public:
    Md5();
    ~Md5();
    Md5(const Md5 &) = delete;
    Md5 &operator=(const Md5 &) = delete;

    void feed(std::string_view bytes);
    std::string text();  // once, after everything was fed

private:
    evp_md_ctx_st *context_;
};

// Throws std::runtime_error when the file cannot be read.
std::string md5OfFile(const std::filesystem::path &path);

}  // namespace fwimage
