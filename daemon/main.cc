// The command line: a mode word and at most one argument. Intended: the exit status is 0 on every path.

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

// Holds a command and then its reply; in the one-shot modes the report or the country code.
char pkbuf[kPkbufSize];

constexpr unsigned kDiscoverySeconds = 1;   // pause after the discovery
constexpr unsigned kConnectionSeconds = 1;  // pause before the connection

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

// Returns the third of exactly three words if a file of that name exists. Otherwise prints the error line and returns
// null.
const char *fileArgument(int argc, char **argv) {
    if (argc == 3 && access(argv[2], F_OK) == 0) return argv[2];
    printf("%s %s filename\n\n", argv[0], argv[1]);
    return nullptr;
}

// Flashes the file that the command line names. Returns false if it names no file.
bool flashFile(int partition, int argc, char **argv) {
    const char *const file = fileArgument(argc, argv);
    if (file == nullptr) return false;
    writePartitions(partition, file, nullptr, 0);
    return true;
}

// The service closes descriptors 0 to 2, and each descriptor that is opened next gets the lowest free number.
//
// Descriptor 0 goes to the socket of the system log, which the first log line opens and which stays open. Everything
// that is opened before must be closed by then. Without a log daemon some C libraries close that socket again; the
// connection then gets 0, and the service ends.
//
// Nothing long-lived may occupy 1 or 2, because child processes use them as stdout and stderr. Nor may they stay
// closed: a shell refuses to run "/tmp/reboot 2>&1" without descriptor 1. So whatever stays open is moved above 2, and
// serveStation opens /dev/null on those that are free.
void startService(bool waitsForDiscovery) {
    if (fork() != 0) return;
    for (int standard = STDIN_FILENO; standard <= STDERR_FILENO; ++standard) close(standard);
    init_configuration();
    initialFunc();
    interfaceCmd();
    if (waitsForDiscovery) {
        run_fabtestd();
        sleep(kDiscoverySeconds);
    }
    sleep(kConnectionSeconds);
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

// A text with colons must have the length of an address; without colons any length will do.
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
    char code[3] = "";  // two bytes are written even if the argument is shorter
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

// Intended: writing the kernel or the configuration does not reboot the board.
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
