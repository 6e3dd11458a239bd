// The command line: one mode word and at most one argument. The exit status is 0 on every path.

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "daemon/board.h"
#include "daemon/discovery.h"
#include "daemon/dispatcher.h"
#include "daemon/qc_connection.h"
#include "firmware/partition.h"
#include "firmware/product_block.h"
#include "firmware/upgrade.h"
#include "identity/country.h"
#include "identity/mac.h"
#include "identity/report.h"
#include "support/configuration.h"
#include "support/shell.h"
#include "support/string_utils.h"
#include "support/system_info.h"

namespace {

// Holds each command and its reply; in the one-shot modes the report or the country code.
char pkbuf[kPkbufSize];

constexpr unsigned kStationSeconds = 1;    // what the station takes to listen, once it has found the board
constexpr unsigned kInterfaceSeconds = 1;  // what the interfaces take to come up

constexpr char kUsage[] =
    "%s command:\n\n"
    "%s [daemon | qconly | info | switch | domcheck | country | image | kernel | rootfs | config]\n"
    "\tdaemon - normal\n"
    "\tqconly - recv packet 0x55aa & run QC Client\n"
    "\tinfo - get Information\n"
    "\tswitch - reset switch & set QC ip\n"
    "\tdomcheck - rewrite DOMCheck\n"
    "\tmac - set mac\n"
    "\tcountry XX - set Country\n"
    "\timage filename - write image\n"
    "\tkernel filename - write kernel\n"
    "\trootfs filename - write rootfs\n"
    "\tconfig filename - write config\n"
    "\n\n";

// The file that a mode is to write: the third of exactly three words, if it exists. Otherwise prints the error line
// and returns null.
const char *fileArgument(int argc, char **argv) {
    if (argc == 3 && access(argv[2], F_OK) == 0) return argv[2];
    printf("%s %s filename\n\n", argv[0], argv[1]);
    return nullptr;
}

// False when there was no file to flash.
bool flashFile(int partition, int argc, char **argv) {
    const char *const file = fileArgument(argc, argv);
    if (file == nullptr) return false;
    writePartitions(partition, file, nullptr, 0);
    return true;
}

// Descriptors 0 to 2 are closed, and the next that is opened gets the lowest free one. The first log line opens the
// socket of the system log, which takes 0 and keeps it: everything opened before that must be closed again by then.
// Without a log daemon, some C libraries give that socket back, others keep it; where it is given back the connection
// gets 0, and the service ends. 1 and 2 must not go to anything that stays open, as they would be the output of the
// programs that commands start, and they must not stay closed, as a shell does not even start "/tmp/reboot 2>&1" then.
// So what stays open moves above 2, and once the connection has a socket, /dev/null is opened on what is free.
void startService(bool discovered) {
    if (fork() != 0) return;
    for (int standard = STDIN_FILENO; standard <= STDERR_FILENO; ++standard) close(standard);
    init_configuration();
    initialFunc();
    interfaceCmd();
    if (discovered) {
        run_fabtestd();
        sleep(kStationSeconds);
    }
    sleep(kInterfaceSeconds);
    memset(pkbuf, 0, sizeof pkbuf);
    handleResetSignals();
    serveStation(pkbuf);
}

void daemonMode(int, char **) { startService(false); }

void qconlyMode(int, char **) { startService(true); }

void infoMode(int, char **) {
    open_configuration();
    initialFunc();
    getInfo(pkbuf, 0);
    printf("%s", pkbuf);
}

void switchMode(int, char **) {
    open_configuration();
    initialFunc();
    resetSwitch();
    interfaceCmd();
}

void domcheckMode(int argc, char **argv) {
    if (argc == 2) getProduct(kSystemInfo, nullptr, nullptr);
    writeDOMCheck(argc == 2 ? nullptr : argv[2]);
}

// A text with colons must have the length of an address; one without is a number of any length.
void macMode(int argc, char **argv) {
    if (argc != 3) {
        printf("%s %s mac\n\n", argv[0], argv[1]);
        return;
    }
    if (strchr(argv[2], ':') != nullptr && strlen(argv[2]) != 17) return;
    open_configuration();
    setMac(argv[2]);
}

void countryMode(int argc, char **argv) {
    open_configuration();
    CountryRW(0, pkbuf);
    if (argc != 3) {
        printf("Country: %s\n", pkbuf);
        return;
    }
    printf("Country: %s -> ", pkbuf);
    char code[3] = "";  // two bytes of it are written, however short the argument is
    my_copyText(code, argv[2], sizeof code);
    CountryRW(1, code);
    CountryRW(0, pkbuf);
    printf("%s\n", pkbuf);
}

void imageMode(int argc, char **argv) {
    const char *const file = fileArgument(argc, argv);
    if (file == nullptr) return;
    writeImage(file);
    my_system(kRamReboot);
}

// Writing the kernel or the configuration does not reboot the board: intended, only a new root file system pulls the
// ground from under what is running.
void kernelMode(int argc, char **argv) { flashFile(kKernelPartition, argc, argv); }

void rootfsMode(int argc, char **argv) {
    if (flashFile(kRootfsPartition, argc, argv)) my_system(kRamReboot);
}

void configMode(int argc, char **argv) { flashFile(kConfigPartition, argc, argv); }

void testMode(int, char **) {
    open_configuration();
    initialFunc();
}

void portChangeMode(int, char **) {
    if (init_configuration() == nullptr) return;
    const char *const pairs = RETURN_DEF_STR("SYSTEM_PORT_CHANGE");
    if (pairs != nullptr) exchangePorts(pairs);
}

struct Mode {
    const char *word;
    void (*run)(int argc, char **argv);
};

constexpr Mode kModes[] = {
    {"daemon", daemonMode},          {"qconly", qconlyMode}, {"info", infoMode},       {"switch", switchMode},
    {"domcheck", domcheckMode},      {"mac", macMode},       {"country", countryMode}, {"image", imageMode},
    {"kernel", kernelMode},          {"rootfs", rootfsMode}, {"config", configMode},   {"test", testMode},
    {"port_change", portChangeMode},
};

}  // namespace

int main(int argc, char **argv) {
    for (const Mode &mode : kModes) {
        if (argc < 2 || argv[1] == nullptr || strcmp(argv[1], mode.word) != 0) continue;
        mode.run(argc, argv);
        return 0;
    }
    printf(kUsage, argv[0], argv[0]);
    return 0;
}
