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

constexpr unsigned kFlagPollSeconds = 1;

struct Request {
    int socket;
    char *pkbuf;
    int length;
    char *argument;  // the text after the command word in pkbuf
};

// Clears the received bytes so that the reply is NUL-terminated. The rest of its frame of 64 bytes is NUL already: the
// connection clears the frame before it receives a command.
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

// Receives the payload whose size the command announces; without a number the size is 0.
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

// Leaves the command in the buffer, as its own reply.
void shell(const Request &request) {
    // The size follows one separator, which may be any character. After a bare "SHELL" both are NUL, since the buffer
    // was cleared: the size is then 0.
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

// The first matching word wins: the order is part of the interface. The empty word at the end matches every text.
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
