// Times the daemon on the virtual board from the station, and the usual tools beside it: flashcp for flashing,
// "nc -l > file" for receiving. usage: board_bench ROUNDS NC-PORT
// Each round runs everything once; the sums over all rounds are compared.

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdlib>
#include <random>
#include <sstream>
#include <string>
#include <thread>

#include "station/wire/listener.h"
#include "station/wire/script.h"

namespace {

using station::Clock;
using station::Milliseconds;
using station::Session;

constexpr size_t kPayload = 4 << 20;
constexpr Milliseconds kLimit{60000};

// Prints the milliseconds per run of: flashcp with erase-all, its start-up alone, reading back flash and file as
// flashcp does, and the start-up of that. The file is the station's last payload.
constexpr char kFlashcpScript[] =
    "#!/bin/sh\n"
    "runs=5\n"
    "now() { read -r up rest < /proc/uptime; now=${up%.*}${up#*.}; }\n"
    "timed() {\n"
    "    now; start=$now; i=0\n"
    "    while [ $i -lt $runs ]; do \"$@\" > /dev/null 2>&1 || exit 1; i=$((i + 1)); done\n"
    "    now; echo $(((now - start) * 10))\n"
    "}\n"
    "timed flashcp -A /tmp/payload /dev/mtd2\n"
    "timed flashcp -V\n"
    "timed dd if=/dev/mtd2 bs=10k of=/dev/null\n"
    "timed dd if=/tmp/payload bs=10k of=/dev/null\n"
    "timed dd if=/dev/null bs=10k of=/dev/null\n"
    "echo $runs\n";

constexpr char kKeepPayload[] = "#!/bin/sh\nhead -c 4194304 /dev/urandom > /tmp/payload\n";

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

double timeCommand(Session &session, const std::string &word, const std::string &payload) {
    const auto start = Clock::now();
    session.sendCommand(fmt::format("{} {}", word, payload.size()));
    session.sendBytes(payload);
    if (session.receiveReply(kLimit) != "OK") throw station::SessionError(word + " was not answered OK");
    return secondsSince(start);
}

double timeNc(uint16_t port, const std::string &payload) {
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the board starts the next nc
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Session session{station::Socket(descriptor)};
    const auto start = Clock::now();
    if (connect(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        throw station::SessionError("nc does not listen");
    }
    session.sendBytes(payload);
    shutdown(descriptor, SHUT_WR);
    uint64_t cut = 0;
    session.receiveAll(kLimit, 0, cut);  // until nc has closed
    return secondsSince(start);
}

struct Flashcp {
    double whole = 0, startUp = 0, readBack = 0;  // seconds per run
};

Flashcp timeFlashcp(Session &session) {
    std::istringstream lines(station::runScript(session, kFlashcpScript, Clock::now() + kLimit).output);
    double whole = 0, startUp = 0, readFlash = 0, readFile = 0, readNothing = 0, runs = 0;
    if (!(lines >> whole >> startUp >> readFlash >> readFile >> readNothing >> runs)) {
        throw station::SessionError("flashcp failed on the board: " + lines.str());
    }
    return {whole / runs / 1000, startUp / runs / 1000, (readFlash + readFile - 2 * readNothing) / runs / 1000};
}

struct Sums {
    double kernel = 0, version = 0, nc = 0;
    Flashcp flashcp;
};

void addRound(Sums &sums, Session &session, uint16_t port, const std::string &payload) {
    sums.kernel += timeCommand(session, "FW KERNEL", payload);
    sums.version += timeCommand(session, "VERSION", payload);
    sums.nc += timeNc(port, payload);
    const Flashcp flashcp = timeFlashcp(session);
    sums.flashcp.whole += flashcp.whole;
    sums.flashcp.startUp += flashcp.startUp;
    sums.flashcp.readBack += flashcp.readBack;
}

void print(const Sums &sums, int rounds) {
    const auto milliseconds = [&](double sum) { return sum / rounds * 1000; };
    const double flashing = sums.kernel - sums.version;
    const Flashcp &flashcp = sums.flashcp;
    fmt::print("receive 4 MiB: fabtestd {:.0f} ms, nc {:.0f} ms: {:.2f} times as fast\n", milliseconds(sums.version),
               milliseconds(sums.nc), sums.nc / sums.version);
    fmt::print(
        "flash 4 MiB: fabtestd {:.0f} ms, flashcp {:.0f} ms ({:.0f} ms of that its start-up, {:.0f} ms its read-back): "
        "{:.2f} times as fast, without the read-back {:.2f}, without the start-up as well {:.2f}\n",
        milliseconds(flashing), milliseconds(flashcp.whole), milliseconds(flashcp.startUp),
        milliseconds(flashcp.readBack), flashcp.whole / flashing, (flashcp.whole - flashcp.readBack) / flashing,
        (flashcp.whole - flashcp.readBack - flashcp.startUp) / flashing);
}

}  // namespace

int main(int argc, char **argv) try {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 10;
    const auto port = static_cast<uint16_t>(argc > 2 ? std::atoi(argv[2]) : 5000);
    std::string payload(kPayload, '\0');
    std::mt19937 random(1);  // the same bytes every time
    for (char &c : payload) c = static_cast<char>(random());
    station::Listener listener("127.0.0.1", station::kDefaultPort);
    station::waitFor(listener.descriptor(), POLLIN, Clock::now() + kLimit);
    Session session = listener.take().value();
    station::runScript(session, kKeepPayload, Clock::now() + kLimit);
    Sums warmUp;
    addRound(warmUp, session, port, payload);
    Sums sums;
    for (int i = 0; i < rounds; ++i) addRound(sums, session, port, payload);
    session.sendCommand("BYE");
    session.receiveReply(kLimit);
    print(sums, rounds);
    return 0;
} catch (const std::exception &error) {
    std::fprintf(stderr, "board_bench: %s\n", error.what());
    return 1;
}
