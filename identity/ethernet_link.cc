#include "identity/ethernet_link.h"

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "support/handle.h"
#include "support/string_utils.h"

namespace {

constexpr std::array<uint32_t, 5> kSpeeds = {10, 100, 1000, 2500, 10000};

bool isUsual(uint32_t speed) { return std::find(kSpeeds.begin(), kSpeeds.end(), speed) != kSpeeds.end(); }

// Sends an ethtool command. The kernel writes its answer over the command.
bool ask(int socket, ifreq *request, void *command) {
    request->ifr_data = static_cast<char *>(command);
    return ioctl(socket, SIOCETHTOOL, request) >= 0;
}

}  // namespace

int my_get_ethtool(const char *name, uint32_t *speed, uint32_t *duplex) {
    ifreq request = {};
    if (strlen(name) >= sizeof request.ifr_name) return -1;
    my_copyText(request.ifr_name, name, sizeof request.ifr_name);
    const DescriptorHandle socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (socket < 0) return -1;

    ethtool_value link = {};
    link.cmd = ETHTOOL_GLINK;
    if (!ask(socket, &request, &link) || link.data == 0) return -1;
    ethtool_cmd settings = {};
    settings.cmd = ETHTOOL_GSET;
    if (!ask(socket, &request, &settings)) return -1;
    *speed = isUsual(settings.speed) ? settings.speed : 0;
    *duplex = settings.duplex < 2 ? settings.duplex : 0;
    return 0;
}
