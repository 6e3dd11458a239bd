#include "daemon/board.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/configuration.h"
#include "support/handle.h"
#include "support/process_file.h"
#include "support/shell.h"

int wireTotal;
int wirelessTotal;
int support_freq;
char systemProduct[kProductBlockSize];
volatile sig_atomic_t factoryResetFlag;

namespace {

constexpr char kIfconfig[] = "/sbin/ifconfig";
constexpr char kIpLink[] = "/bin/ip link";

void copyToRam() {
    if (access(kRamBusybox, F_OK) == 0) return;
    my_system("/bin/cp -a /dev/ /tmp/ > /dev/null 2>&1");
    my_system("/bin/cp /bin/busybox /tmp/ > /dev/null 2>&1");
    my_system("/bin/ln -s busybox /tmp/echo > /dev/null 2>&1");
    my_system("/bin/ln -s busybox %s > /dev/null 2>&1", kRamReboot);
}

// Reads words 2 and 3. False when the list ends before word 3: what follows the counts is then left unread as well.
bool readCounts(const char *macArguments) {
    const char *const wired = skipWords(macArguments, 1);
    if (wired == nullptr) return false;
    wireTotal = atoi(wired);
    const char *const wireless = skipWords(wired, 1);
    if (wireless == nullptr) return false;
    wirelessTotal = atoi(wireless);
    return true;
}

void swapNames(const char *a, const char *b) {
    my_system("%s %s down", kIfconfig, a);
    my_system("%s %s down", kIfconfig, b);
    my_system("%s set dev %s name eth_temp", kIpLink, a);
    my_system("%s set dev %s name %s", kIpLink, b, a);
    my_system("%s set dev eth_temp name %s", kIpLink, b);
    my_system("%s %s up", kIfconfig, a);
    my_system("%s %s up", kIfconfig, b);
}

// `pair` is cut in place. False when it holds no '_'.
bool exchangePair(char *pair) {
    char *const underscore = strchr(pair, '_');
    if (underscore == nullptr) return false;
    *underscore = '\0';
    swapNames(pair, underscore + 1);
    return true;
}

// syslog takes locks that the interrupted code may be holding; a datagram to the log's socket takes none. The message
// carries its priority and an identity, but no time, which cannot be told without a lock either: every log daemon takes
// its own then. One of them, however, takes 16 characters behind the priority for a time as soon as the last of them is
// a blank, and drops them. Behind this identity it is none.
template <size_t Size>
void logFromHandler(const char (&message)[Size]) {
    const int interruptedErrno = errno;
    const DescriptorHandle log(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, "/dev/log", sizeof "/dev/log");
    sendto(log, message, Size - 1, MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    errno = interruptedErrno;
}

void onResetSignal(int) {
    static_assert((LOG_USER | LOG_ALERT) == 9);
    logFromHandler("<9>fabtestd: Factory Reset Signal (SIGUSR2)\n");
    factoryResetFlag = 2;
}

void onReleaseSignal(int) {
    logFromHandler("<9>fabtestd: Factory Reset Signal (SIGUSR1)\n");
    factoryResetFlag = 0;
}

}  // namespace

const char *skipWords(const char *text, int count) {
    for (; count > 0 && text != nullptr; --count) {
        text = strchr(text, ' ');
        if (text != nullptr) ++text;
    }
    return text;
}

void initialFunc() {
    memset(systemProduct, 0, sizeof systemProduct);
    copyToRam();
    const char *const macArguments = RETURN_DEF_STR(kMacArguments);
    // Counts that are cut short leave the radio mask unread: intended, a board with half a description has no radios.
    if (macArguments != nullptr && !readCounts(macArguments)) return;
    support_freq = RETURN_DEF_INT("WIFI_DEV_DEFINE");
}

void interfaceCmd() {
    for (int i = 0; i < wireTotal; ++i) my_system("%s eth%d 192.168.%d.1 > /dev/null 2>&1", kIfconfig, i, i + 1);
    my_system("/bin/ping -c 30 192.168.1.2 > /dev/null 2>&1 &");
}

void resetSwitch() {}

void reboot_func() {
    my_system("%s 2>&1", kRamReboot);
    my_killproc("hardware_reset", SIGTERM);
}

void exchangePorts(const char *pairs) {
    char *const copy = strdup(pairs);
    if (copy == nullptr) return;
    char *pair = copy;
    bool going = true;
    while (going) {
        char *const blank = strchr(pair, ' ');
        if (blank != nullptr) *blank = '\0';
        going = exchangePair(pair) && blank != nullptr;
        if (going) pair = blank + 1;
    }
    free(copy);
}

void handleResetSignals() {
    struct sigaction action = {};
    action.sa_flags = SA_RESTART;
    // Each handler runs with the other's signal blocked, too: of two signals close together the later one decides.
    sigaddset(&action.sa_mask, SIGUSR1);
    sigaddset(&action.sa_mask, SIGUSR2);
    action.sa_handler = onReleaseSignal;
    sigaction(SIGUSR1, &action, nullptr);
    action.sa_handler = onResetSignal;
    sigaction(SIGUSR2, &action, nullptr);
}
