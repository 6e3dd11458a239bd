#include "daemon/board.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "support/configuration.h"
#include "support/handle.h"
#include "support/process_file.h"
#include "support/shell.h"
#include "support/string_utils.h"

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

// Reads words 2 and 3. Returns false when the list ends before word 3.
bool readCounts(const char *macArguments) {
    const char *const wired = my_skipWords(macArguments, 1);
    if (wired == nullptr) return false;
    wireTotal = atoi(wired);
    const char *const wireless = my_skipWords(wired, 1);
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

// Cuts `pair` in place. Returns false when it contains no '_'.
bool exchangePair(char *pair) {
    char *const underscore = strchr(pair, '_');
    if (underscore == nullptr) return false;
    *underscore = '\0';
    swapNames(pair, underscore + 1);
    return true;
}

// Sends a message to the system log without syslog, which takes locks that the interrupted code may hold. The message
// carries its priority and an identity. It carries no time, because formatting one takes a lock, too; the log daemon
// then uses its own. Some log daemons drop the 16 characters after the priority as a time if the last of them is a
// blank. With this identity it is not.
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

void initialFunc() {
    memset(systemProduct, 0, sizeof systemProduct);
    copyToRam();
    const char *const macArguments = RETURN_DEF_STR(kMacArguments);
    // Intended: when the counts are cut short, the radio mask is not read.
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
    char *rest = copy;
    while (char *const pair = strsep(&rest, " ")) {
        if (!exchangePair(pair)) break;
    }
    free(copy);
}

void handleResetSignals() {
    struct sigaction action = {};
    action.sa_flags = SA_RESTART;
    // Each handler runs with both signals blocked, so the later of two close signals decides.
    sigaddset(&action.sa_mask, SIGUSR1);
    sigaddset(&action.sa_mask, SIGUSR2);
    action.sa_handler = onReleaseSignal;
    sigaction(SIGUSR1, &action, nullptr);
    action.sa_handler = onResetSignal;
    sigaction(SIGUSR2, &action, nullptr);
}
