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
constexpr size_t kFrame = 64;  // a command is at most this long, a reply at least

sockaddr_in stationAddress() {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(kStationPort);
    inet_aton(kStationAddress, &address.sin_addr);
    return address;
}

// Moves the socket above descriptors 0 to 2 and opens /dev/null on those that are free (startService in main.cc says
// why). Leaves descriptor 0 where it is, for serveStation to judge. Returns the socket's descriptor.
int makeRoomForOutput(int socket) {
    if (socket == 0 || socket > STDERR_FILENO) return socket;
    const int moved = moveAboveStandard(socket);
    int null;
    do null = open("/dev/null", O_RDWR);
    while (null >= 0 && null <= STDERR_FILENO);
    if (null >= 0) close(null);
    return moved;
}

// Makes the socket as new for the next attempt. Connecting it to no family ends the attempt, also one that is still
// under way: the kernel would go on with that at ever longer intervals, a minute and more behind a station that comes
// late. What the kernel has noted of the attempt stays on the socket, and is taken away: the pending error would fail
// the next attempt, and the error queue, where the answers of the network stand ("no route to host"), would make it
// look ready at once, without an error, and so connected.
void forgetFailedAttempt(int socket) {
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
        forgetFailedAttempt(socket);
        syslog(LOG_ALERT, "connecting %d (%s)\n", attempt, strerror(reason));
        sleep(kRetrySeconds);
        syslog(LOG_ALERT, "connecting %d\n", ++attempt);
    }
}

// False when the wait ended without anything to read: the time ran out or a signal came.
bool waitForCommand(int socket) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(socket, &readable);
    timeval limit = {kWaitSeconds, 0};
    return select(socket + 1, &readable, nullptr, nullptr, &limit) > 0;
}

// Sends the text as one frame: 64 bytes, or with its NUL when it is longer. Returns what send returns. A station that
// has gone must not end the process by a signal.
ssize_t sendReply(int socket, const char *pkbuf) {
    const size_t length = strlen(pkbuf);
    return send(socket, pkbuf, length <= kFrame ? kFrame : length + 1, MSG_NOSIGNAL);
}

// Receives one command, carries it out and answers it. False when the session has ended.
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
    // Close-on-exec: nothing that a command's program prints may enter the protocol stream.
    const int made = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (made < 0) {
        perror("fabtestd(initSocket - socket)");
        return;
    }
    const int station = makeRoomForOutput(made);
    connectStation(station);
    syslog(LOG_ALERT, "Socketid = %d\n", station);
    // Intended: the connection has descriptor 0 only where nothing can be logged (startService in main.cc), and nobody
    // would see what was done.
    if (station == 0) return;

    while (!waitForCommand(station) || serveCommand(station, pkbuf)) {
    }
    syslog(LOG_ALERT, "closeSocket (Socketid = %d)\n", station);
    close(station);
}
