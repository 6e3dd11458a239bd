#pragma once
// Digests as md5sum and sha256sum print them: lower-case hexadecimal digits.

#include <memory>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace station {

//     Digest digest("SHA256");
//     digest.feed(bytes);
//     const std::string text = digest.text();
class Digest {
public:
    // `algorithm`: "MD5", "SHA256". Throws std::runtime_error when OpenSSL does not offer it.
    explicit Digest(const char *algorithm);
    void feed(std::string_view bytes);
    // Returns the digest of everything that was fed. May be called once.
    std::string text();

private:
    std::unique_ptr<evp_md_ctx_st, void (*)(evp_md_ctx_st *)> context_;
};

}  // namespace station
