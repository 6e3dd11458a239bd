#include "station/plan/payload.h"

#include "station/base/digest.h"
#include "station/base/file.h"

namespace station {

Payload readPayload(const std::filesystem::path &path) {
    auto bytes = std::make_shared<const std::string>(readFile(path, kLargestPayload));
    Digest digest("MD5");
    digest.feed(*bytes);
    return {path.filename().string(), std::move(bytes), digest.text()};
}

}  // namespace station
