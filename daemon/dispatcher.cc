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

struct Request {
    int socket;
    char *pkbuf;
    int length;
    char *argument;  // what follows the command word in pkbuf
};

// The first `length` bytes: with what the connection clears before it receives, the reply's frame is all NUL.
void clearReply(const Request &request) { memset(request.pkbuf, 0, static_cast<size_t>(request.length)); }

void reply(const Request &request, const char *text) {
    clearReply(request);
    snprintf(request.pkbuf, kPkbufSize, "%s", text);
}

void ping(const Request &request) {
    pingFlag = 1;
    clearReply(request);
    snprintf(request.pkbuf, kPkbufSize, "%s %d", "PING", wireTotal);
}

void factoryReset(const Request &request) {
    factoryResetFlag = 1;
    do sleep(1);
    while (factoryResetFlag == 1);
    reply(request, "WAITING FACTORY RESET");
}

void waiting(const Request &request) {
    while (factoryResetFlag != 0) sleep(1);
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
    clearReply(request);
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
    // One separator is skipped, whatever it is. Behind a command of five characters stands the NUL of the cleared
    // buffer, and another behind that.
    saveFile(request.socket, atoi(request.argument + 1), kReceiveFile);
    my_system("chmod 755 %s; %s", kReceiveFile, kReceiveFile);
}

void programMac(const Request &request) {
    setMac(request.argument);
    clearReply(request);
    snprintf(request.pkbuf, kPkbufSize, "%s %d", "MAC", wireTotal + wirelessTotal);
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
