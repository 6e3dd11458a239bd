#include "image/md5.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <array>
#include <fstream>
#include <stdexcept>

namespace fwimage {

Md5::Md5() : context_(EVP_MD_CTX_new()) {
    if (EVP_DigestInit_ex(context_, EVP_md5(), nullptr) == 1) return;
    EVP_MD_CTX_free(context_);
    throw std::runtime_error("MD5 is not to be had");
}

Md5::~Md5() { EVP_MD_CTX_free(context_); }

void Md5::feed(std::string_view bytes) { EVP_DigestUpdate(context_, bytes.data(), bytes.size()); }

std::string Md5::text() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
    unsigned length = 0;
    EVP_DigestFinal_ex(context_, bytes.data(), &length);
    std::string result;
    for (unsigned i = 0; i < length; ++i) result += fmt::format("{:02x}", bytes[i]);
    return result;
}

std::string md5OfFile(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    Md5 digest;
    std::array<char, 65536> piece;
    while (file.read(piece.data(), piece.size()), file.gcount() > 0) {
        digest.feed({piece.data(), static_cast<size_t>(file.gcount())});
    }
    if (!file.eof()) throw std::runtime_error(fmt::format("cannot read {}", path.string()));
    return digest.text();
}

}  // namespace fwimage
