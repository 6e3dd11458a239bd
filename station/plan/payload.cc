#include "station/plan/payload.h"

#include "station/base/digest.h"
#include "station/base/file.h"

namespace station {

Payload readPayload(const std::filesystem::path &path) {
    auto bytes = std::make_shared<const std::string>(readFile(path, kLargestPayload));
    Digest md5("MD5"), sha256("SHA256");
    md5.feed(*bytes);
    sha256.feed(*bytes);
    return {path.filename().string(), std::move(bytes), md5.text(), sha256.text()};
}

const char *pictureType(std::string_view bytes) {
    if (bytes.starts_with("\x89PNG\r\n")) return "image/png";
    if (bytes.starts_with("\xff\xd8\xff")) return "image/jpeg";
    return bytes.starts_with("RIFF") && bytes.substr(0, 12).ends_with("WEBP") ? "image/webp" : nullptr;
}

}  // namespace station
