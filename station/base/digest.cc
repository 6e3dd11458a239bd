#include "station/base/digest.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <array>
#include <stdexcept>

namespace station {

Digest::Digest(const char *algorithm) : context_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
    const EVP_MD *const method = EVP_get_digestbyname(algorithm);
    if (method == nullptr || EVP_DigestInit_ex(context_.get(), method, nullptr) != 1)
        throw std::runtime_error(fmt::format("OpenSSL does not offer {} on this machine", algorithm));
}

void Digest::feed(std::string_view bytes) { EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()); }

std::string Digest::text() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
    unsigned length = 0;
    EVP_DigestFinal_ex(context_.get(), bytes.data(), &length);
    return fmt::format("{:02x}", fmt::join(bytes.begin(), bytes.begin() + length, ""));
}

}  // namespace station
