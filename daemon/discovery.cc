#include "daemon/discovery.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <ctime>

#include "support/handle.h"
#include "support/ignored.h"
#include "support/string_utils.h"

namespace {

constexpr size_t kMacSize = 6;
constexpr size_t kSource = 6;  // offsets in an Ethernet frame (IEEE 802.3)
constexpr size_t kEtherType = 12;
constexpr size_t kFrameSize = 1024;  // a longer frame is cut there, and answered so
constexpr int kAllEtherTypes = 3;    // ETH_P_ALL of linux/if_ether.h
constexpr int kAnswers = 3;
constexpr time_t kWaitSeconds = 2;
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
        // Stays open: intended, as it always has; out of the way (startService in main.cc).
        moveAboveStandard(socket);
        return false;
    }
    memcpy(my_mac, request.ifr_hwaddr.sa_data, kMacSize);
    close(socket);
    return true;
}

int64_t microseconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

// Takes the time that the wait took off the limit, which not every C library's select does. The limit is never set
// anew, so that after two idle seconds the listener polls without a pause: intended, and harmless. It runs for a short
// time on a line, and the board has nothing else to do meanwhile.
bool waitForFrame(int socket, int32_t *limit) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(socket, &readable);
    timeval left = {*limit / 1000000, *limit % 1000000};
    const int64_t start = microseconds();
    const int ready = select(socket + 1, &readable, nullptr, nullptr, &left);
    const int64_t rest = *limit - (microseconds() - start);
    *limit = rest > 0 ? static_cast<int32_t>(rest) : 0;
    return ready > 0 && FD_ISSET(socket, &readable);
}

// Turns a request into its answer, in place. False when it is none, or not for this board.
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
    int32_t limit = kWaitSeconds * 1000000;
    uint8_t frame[kFrameSize];
    for (;;) {
        if (!waitForFrame(socket, &limit)) continue;
        sockaddr peer = {};
        socklen_t peerSize = sizeof peer;
        const ssize_t length = recvfrom(socket, frame, sizeof frame, 0, &peer, &peerSize);
        if (length <= 0 || !answerInPlace(frame, static_cast<size_t>(length), my_mac)) continue;
        // The answer goes to the first 16 bytes of the frame's address, which name the interface: all that a socket of
        // this old kind needs. recvfrom, given room for these 16, sets peerSize to the size of the whole address, more
        // than is there to hand on.
        for (int i = 0; i < kAnswers; ++i) sendto(socket, frame, static_cast<size_t>(length), 0, &peer, sizeof peer);
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
