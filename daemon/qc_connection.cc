#include "daemon/qc_connection.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "daemon/dispatcher.h"
#include "support/handle.h"
#include "support/ignored.h"
#include "support/shell.h"

namespace {

constexpr char kStationAddress[] = "192.168.1.2";
constexpr uint16_t kStationPort = 55688;
constexpr int kConnectSeconds = 3;
constexpr unsigned kRetrySeconds = 3;
constexpr int kWaitSeconds = 30;
constexpr size_t kFrame = 64;  // maximum size of a command, minimum size of a reply

sockaddr_in stationAddress() {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(kStationPort);
    inet_aton(kStationAddress, &address.sin_addr);
    return address;
}

// Moves the socket above descriptors 0 to 2 and opens /dev/null on those that are free; see startService in main.cc. A
// socket with descriptor 0 stays there: serveStation rejects it. Returns the socket's descriptor.
int makeRoomForOutput(int socket) {
    if (socket == 0 || socket > STDERR_FILENO) return socket;
    const int moved = moveAboveStandard(socket);
    int opened;
    do opened = open("/dev/null", O_RDWR);
    while (opened >= 0 && opened <= STDERR_FILENO);
    if (opened >= 0) close(opened);
    return moved;
}

// Resets the socket for the next attempt. Connecting to AF_UNSPEC aborts an attempt still in progress; left alone, the
// kernel would keep retransmitting with growing back-off and notice a late station only after a minute or more. Then
// drain what is left: a pending SO_ERROR would fail the next connect, and a queued ICMP error would make select report
// the socket ready without an error, which looks like success.
void resetSocket(int socket) {
    sockaddr none = {};
    none.sa_family = AF_UNSPEC;
    ignored(connect(socket, &none, sizeof none));
    int pending;
    socklen_t length = sizeof pending;
    ignored(getsockopt(socket, SOL_SOCKET, SO_ERROR, &pending, &length));
    while (recv(socket, nullptr, 0, MSG_ERRQUEUE | MSG_DONTWAIT) >= 0) {
    }
}

void connectStation(int socket) {
    const sockaddr_in station = stationAddress();
    int attempt = 1;
    syslog(LOG_ALERT, "connecting %d\n", attempt);
    while (my_connect_t(socket, reinterpret_cast<const sockaddr *>(&station), sizeof station, kConnectSeconds) < 0) {
        const int reason = errno;
        resetSocket(socket);
        syslog(LOG_ALERT, "connecting %d (%s)\n", attempt, strerror(reason));
        sleep(kRetrySeconds);
        syslog(LOG_ALERT, "connecting %d\n", ++attempt);
    }
}

// False after a timeout or a signal.
bool waitForCommand(int socket) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(socket, &readable);
    timeval limit = {kWaitSeconds, 0};
    return select(socket + 1, &readable, nullptr, nullptr, &limit) > 0;
}

// Sends the text as one frame: 64 bytes, or a longer text with its NUL. Returns send's result. MSG_NOSIGNAL: a station
// that has gone must not kill the process with SIGPIPE.
ssize_t sendReply(int socket, const char *pkbuf) {
    const size_t length = strlen(pkbuf);
    return send(socket, pkbuf, length <= kFrame ? kFrame : length + 1, MSG_NOSIGNAL);
}

// Receives one command, carries it out and replies. False at the end of the session.
bool serveCommand(int socket, char *pkbuf) {
    memset(pkbuf, 0, kFrame);
    const ssize_t received = recv(socket, pkbuf, kFrame, 0);
    if (received <= 0) return false;
    ParseCmd(socket, pkbuf, static_cast<int>(received));
    if (pkbuf[0] == '\0') return true;

    syslog(LOG_ALERT, "====== send pkbuf=%s ======\n", pkbuf);
    const ssize_t sent = sendReply(socket, pkbuf);
    if (sent <= 0) {
        syslog(LOG_ALERT, "fabtestd(send)");
        return true;
    }
    syslog(LOG_ALERT, "====== send pktlen=%d ======\n", static_cast<int>(sent));
    return strcmp(pkbuf, "BYE") != 0;
}

}  // namespace

void serveStation(char *pkbuf) {
    // Close-on-exec keeps the output of child processes out of the protocol.
    const int made = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (made < 0) {
        perror("fabtestd(initSocket - socket)");
        return;
    }
    const int station = makeRoomForOutput(made);
    connectStation(station);
    syslog(LOG_ALERT, "Socketid = %d\n", station);
    // Intended: the connection gets descriptor 0 only when nothing can be logged; see startService in main.cc.
    if (station == 0) return;

    while (!waitForCommand(station) || serveCommand(station, pkbuf)) {
    }
    syslog(LOG_ALERT, "closeSocket (Socketid = %d)\n", station);
    close(station);
}
