#include "daemon/dispatcher.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "daemon/board.h"
#include "firmware/partition.h"
#include "firmware/product_block.h"
#include "firmware/upgrade.h"
#include "firmware/upload.h"
#include "identity/country.h"
#include "identity/mac.h"
#include "identity/report.h"
#include "support/shell.h"

int pingFlag;

namespace {

constexpr unsigned kFlagPollSeconds = 1;  // between two looks at the factory reset's flag

struct Request {
    int socket;
    char *pkbuf;
    int length;
    char *argument;  // what follows the command word in pkbuf
};

// Clears as much as was received, which ends the reply that is written next. Behind that the reply's frame of 64 bytes
// is all NUL as well: the connection has cleared these bytes before it received the command.
void clearReply(const Request &request) { memset(request.pkbuf, 0, static_cast<size_t>(request.length)); }

void reply(const Request &request, const char *text) {
    clearReply(request);
    snprintf(request.pkbuf, kPkbufSize, "%s", text);
}

void ping(const Request &request) {
    pingFlag = 1;
    clearReply(request);
    snprintf(request.pkbuf, kPkbufSize, "PING %d", wireTotal);
}

void factoryReset(const Request &request) {
    factoryResetFlag = 1;
    do sleep(kFlagPollSeconds);
    while (factoryResetFlag == 1);
    reply(request, "WAITING FACTORY RESET");
}

void waiting(const Request &request) {
    while (factoryResetFlag != 0) sleep(kFlagPollSeconds);
    reply(request, "OK");
}

void reboot(const Request &request) {
    reboot_func();
    reply(request, "OK");
}

// Receives the payload that the command announces; a size that is no number is 0.
void receivePayload(const Request &request) { saveFile(request.socket, atoi(request.argument), kReceiveFile); }

void version(const Request &request) {
    receivePayload(request);
    getProduct(kReceiveFile, nullptr, nullptr);
    reply(request, "OK");
}

void flashImage(const Request &request) {
    receivePayload(request);
    reply(request, writeImage(kReceiveFile) < 0 ? "ERROR" : "OK");
}

template <int Partition>
void flashPartition(const Request &request) {
    receivePayload(request);
    writePartitions(Partition, kReceiveFile, nullptr, 0);
    reply(request, "OK");
}

// The command itself is the reply: nothing is cleared.
void shell(const Request &request) {
    // The size stands behind one separator, whatever character that is. A bare "SHELL" has none, but the buffer has
    // been cleared: behind a NUL in the separator's place stands another one, an empty size.
    saveFile(request.socket, atoi(request.argument + 1), kReceiveFile);
    my_system("chmod 755 %s; %s", kReceiveFile, kReceiveFile);
}

void programMac(const Request &request) {
    setMac(request.argument);
    clearReply(request);
    snprintf(request.pkbuf, kPkbufSize, "MAC %d", wireTotal + wirelessTotal);
}

void setCountry(const Request &request) {
    CountryRW(1, request.argument);
    reply(request, "OK");
}

void info(const Request &request) {
    clearReply(request);
    getInfo(request.pkbuf, pingFlag);
}

void bye(const Request &request) {
    writeDOMCheck(nullptr);
    reply(request, "BYE");
}

void unknown(const Request &request) { reply(request, "UNKNOWN"); }

struct Command {
    const char *word;
    void (*run)(const Request &request);
};

// The first word that the text begins with wins: the order is part of the interface. The empty word ends the table,
// as every text begins with it.
constexpr Command kCommands[] = {
    {"VERSION ", version},
    {"FW IMAGE ", flashImage},
    {"FW KERNEL ", flashPartition<kKernelPartition>},
    {"FW ROOTFS ", flashPartition<kRootfsPartition>},
    {"FW CONFIG ", flashPartition<kConfigPartition>},
    {"SHELL", shell},
    {"PING", ping},
    {"MAC ", programMac},
    {"COUNTRY ", setCountry},
    {"FACTORY RESET", factoryReset},
    {"WAITING", waiting},
    {"REBOOT", reboot},
    {"INFO", info},
    {"BYE", bye},
    {"", unknown},
};

}  // namespace

void ParseCmd(int socket, char *pkbuf, int length) {
    syslog(LOG_ALERT, "====== ParseCmd len=%d, cmd=%s ======\n", length, pkbuf);
    for (const Command &command : kCommands) {
        const size_t wordLength = strlen(command.word);
        if (strncmp(pkbuf, command.word, wordLength) != 0) continue;
        command.run({socket, pkbuf, length, pkbuf + wordLength});
        return;
    }
}
