#include "daemon/discovery.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "support/clock.h"
#include "support/handle.h"
#include "support/ignored.h"
#include "support/string_utils.h"

namespace {

constexpr size_t kMacSize = 6;
constexpr size_t kSource = 6;  // offsets in an Ethernet frame (IEEE 802.3)
constexpr size_t kEtherType = 12;
constexpr size_t kFrameSize = 1024;  // a longer request is cut, and so is its answer
constexpr int kAllEtherTypes = 3;    // ETH_P_ALL of linux/if_ether.h
constexpr int kAnswers = 3;
constexpr int32_t kWaitLimit = 2000;  // milliseconds
constexpr uint8_t kRequest[] = {0x55, 0xAA};
constexpr uint8_t kAnswer[] = {0xAA, 0x55};
constexpr uint8_t kBroadcast[kMacSize] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

void logMac(const char *label, const uint8_t *mac) {
    syslog(LOG_ALERT, "%s = %02x:%02x:%02x:%02x:%02x:%02x\n", label, mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

bool readOwnMac(uint8_t *my_mac) {
    const int socket = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (socket < 0) return false;
    ifreq request = {};
    my_copyText(request.ifr_name, "eth0", sizeof request.ifr_name);
    if (ioctl(socket, SIOCGIFHWADDR, &request) < 0) {
        // Intended: left open, but moved above 2; see startService in main.cc.
        moveAboveStandard(socket);
        return false;
    }
    memcpy(my_mac, request.ifr_hwaddr.sa_data, kMacSize);
    close(socket);
    return true;
}

// Waits, and subtracts the time of the wait from the limit, which not every C library's select does. Intended: the
// limit is never reset, so after two idle seconds the listener polls without a pause.
bool waitForFrame(int socket, int32_t *limit) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(socket, &readable);
    timeval left = {*limit / 1000, 1000L * (*limit % 1000)};
    const uint32_t deadline = my_milliseconds() + static_cast<uint32_t>(*limit);
    const int ready = select(socket + 1, &readable, nullptr, nullptr, &left);
    *limit = my_millisecondsLeft(deadline);
    return ready > 0 && FD_ISSET(socket, &readable);
}

// Turns a request into its answer, in place. Returns false when the frame is not a request or not for this board.
bool answerInPlace(uint8_t *frame, size_t length, const uint8_t *my_mac) {
    if (length < kEtherType + sizeof kRequest || memcmp(frame + kEtherType, kRequest, sizeof kRequest) != 0)
        return false;
    logMac("dest mac", frame);
    logMac("source mac", frame + kSource);
    if (memcmp(frame, kBroadcast, kMacSize) != 0) {
        if (memcmp(frame, my_mac, kMacSize) != 0) return false;
        memcpy(frame, frame + kSource, kMacSize);
    }
    memcpy(frame + kSource, my_mac, kMacSize);
    memcpy(frame + kEtherType, kAnswer, sizeof kAnswer);
    return true;
}

void serveOneRequest(int socket, const uint8_t *my_mac) {
    int32_t limit = kWaitLimit;
    uint8_t frame[kFrameSize];
    for (;;) {
        if (!waitForFrame(socket, &limit)) continue;
        sockaddr_pkt peer = {};  // names the interface
        sockaddr *const address = reinterpret_cast<sockaddr *>(&peer);
        socklen_t size = sizeof *address;
        const ssize_t length = recvfrom(socket, frame, sizeof frame, 0, address, &size);
        if (length <= 0 || !answerInPlace(frame, static_cast<size_t>(length), my_mac)) continue;
        for (int i = 0; i < kAnswers; ++i) sendto(socket, frame, static_cast<size_t>(length), 0, address, size);
        return;
    }
}

}  // namespace

void run_fabtestd() {
    uint8_t my_mac[kMacSize];
    if (!readOwnMac(my_mac)) return;
    logMac("my_mac", my_mac);
    syslog(LOG_ALERT, "wait 0x55aa\n");
    {
        const DescriptorHandle socket(::socket(AF_PACKET, SOCK_PACKET | SOCK_CLOEXEC, htons(kAllEtherTypes)));
        if (socket < 0) {
            constexpr char kMessage[] = "Can not open fabtestd socket";
            ignored(write(STDERR_FILENO, kMessage, sizeof kMessage - 1));
            return;
        }
        serveOneRequest(socket, my_mac);
    }
    syslog(LOG_ALERT, "run_fabtestd = %d\n", 1);
}
