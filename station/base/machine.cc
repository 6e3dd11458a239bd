#include "station/base/machine.h"

#include <unistd.h>

#include <array>

namespace station {

std::string hostName() {
    std::array<char, 256> name{};
    return ::gethostname(name.data(), name.size() - 1) == 0 && name[0] != '\0' ? name.data() : "station";
}

}  // namespace station
