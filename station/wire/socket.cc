#include "station/wire/socket.h"

#include <net/if.h>
#include <sys/socket.h>

#include <array>

namespace station {

std::string boundTo(int socket) {
    std::array<char, IFNAMSIZ> name{};
    socklen_t length = name.size();
    getsockopt(socket, SOL_SOCKET, SO_BINDTODEVICE, name.data(), &length);
    return name.data();
}

}  // namespace station
