#include "station/base/digest.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <array>
#include <stdexcept>

namespace station {

Digest::Digest(const char *algorithm) : context_(EVP_MD_CTX_new()) {
    const EVP_MD *const method = EVP_get_digestbyname(algorithm);
    if (method != nullptr && EVP_DigestInit_ex(context_, method, nullptr) == 1) return;
    EVP_MD_CTX_free(context_);
    throw std::runtime_error(fmt::format("OpenSSL does not offer {} on this machine", algorithm));
}

Digest::~Digest() { EVP_MD_CTX_free(context_); }

void Digest::feed(std::string_view bytes) { EVP_DigestUpdate(context_, bytes.data(), bytes.size()); }

std::string Digest::text() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
    unsigned length = 0;
    EVP_DigestFinal_ex(context_, bytes.data(), &length);
    std::string result;
    for (unsigned i = 0; i < length; ++i) result += fmt::format("{:02x}", bytes[i]);
    return result;
}

}  // namespace station
