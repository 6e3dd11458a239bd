#include "identity/facts.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "daemon/board.h"
#include "firmware/product_block.h"
#include "identity/country.h"
#include "identity/ethernet_link.h"
#include "identity/mac.h"
#include "support/configuration.h"
#include "support/handle.h"
#include "support/shell.h"
#include "support/string_utils.h"
#include "support/system_info.h"

namespace {

constexpr char kNone[] = "none";

struct Link {
    bool up;
    uint32_t speed;  // Mbit/s
    uint32_t duplex;
};

struct PortEntry {
    char name[32];
    char method[32];
    char port[32];
};

const char *findProduct() {
    char record[kSystemInfoSize];
    if (systemProduct[0] == '\0' && my_systemInfo(record) >= 0) {
        memcpy(systemProduct, record, kProductBlockSize);
        cutProductFields(systemProduct);
    }
    return systemProduct;
}

// The radio, if any, whose interface a line of /proc/net/dev is about. A missing key matches no line, and an empty
// value every one.
unsigned radioOf(const char *line) {
    constexpr struct {
        const char *key;
        unsigned radio;
    } kInterfaces[] = {
        {"WIFI_24G_DEVICE", k24G}, {"WIFI_24G_DEV", k24G}, {"WIFI_5G_DEVICE", k5G}, {"WIFI_5G_DEV", k5G}};
    for (const auto &interface : kInterfaces) {
        const char *const name = RETURN_DEF_STR(interface.key);
        if (name != nullptr && strstr(line, name) != nullptr) return interface.radio;
    }
    return 0;
}

unsigned findRadios() {
    if (wirelessTotal == 0) return k24G | k5G;
    const FileHandle interfaces(fopen("/proc/net/dev", "re"));
    unsigned present = 0;
    char line[1024];
    while (interfaces != nullptr && fgets(line, sizeof line, interfaces) != nullptr) present |= radioOf(line);
    return present;
}

// Copies the field at `text`, as far as it fits, and returns the text behind the field and its end.
const char *cutField(char (&field)[32], const char *text, char end) {
    const char ends[] = {end, '\0'};
    const size_t length = strcspn(text, ends);
    my_copyText(field, text, std::min(length + 1, sizeof field));
    return text[length] != '\0' ? text + length + 1 : text + length;
}

// An entry NAME_METHOD_PORT. Only the port ends at a blank: intended, an entry that lacks a field swallows what follows
// and fails the check, so that a list with a mistake passes no board.
const char *parseEntry(const char *text, PortEntry *entry) {
    text = cutField(entry->name, text, '_');
    text = cutField(entry->method, text, '_');
    return cutField(entry->port, text, ' ');
}

const char *behindColon(const char *word) {
    const char *const colon = strchr(word, ':');
    return colon != nullptr ? colon + 1 : nullptr;
}

// Reads a line such as "link: port:1 link:up speed:1000baseT full-duplex", which it cuts into its words. False unless
// it is about the port and its link is up.
bool parseSwitchLine(char *line, const char *port, Link *link) {
    if (strstr(line, "link:") == nullptr) return false;
    const char *words[5];
    char *rest = line;
    for (const char *&word : words) {
        word = strtok_r(nullptr, kWhiteSpace, &rest);
        if (word == nullptr) word = "";
    }
    const char *const number = behindColon(words[1]);
    // The configured port contains the switch's number, so that a configured 10 also takes ports 1 and 0: intended.
    if (number == nullptr || strstr(port, number) == nullptr || strstr(words[2], ":up") == nullptr) return false;
    const char *const speed = behindColon(words[3]);  // a negative one is no speed
    link->up = true;
    link->speed = speed != nullptr ? static_cast<uint32_t>(std::max(atoi(speed), 0)) : 0;
    link->duplex = strcmp(words[4], "full-duplex") == 0;
    return true;
}

// Not part of its caller's frame: popen takes 6 kB of stack, and this is not to lie on top of it.
[[gnu::noinline]] Link readSwitch(FILE *output, const char *port) {
    Link link = {};
    char line[512];
    while (fgets(line, sizeof line, output) != nullptr && !parseSwitchLine(line, port, &link)) {
    }
    return link;
}

Link askSwitch(const PortEntry &entry) {
    FILE *const output = popen(M("/sbin/swconfig dev %s show", entry.name), "r");
    if (output == nullptr) return {};
    const Link link = readSwitch(output, entry.port);
    pclose(output);
    return link;
}

Link askInterface(const PortEntry &entry) {
    Link link = {};
    link.up = my_get_ethtool(entry.name, &link.speed, &link.duplex) == 0;
    return link;
}

Link examine(const PortEntry &entry) {
    if (strcmp(entry.method, "ethtool") == 0) return askInterface(entry);
    if (strcmp(entry.method, "swconfig") == 0) return askSwitch(entry);
    return {};
}

Ports examinePorts(const char *text) {
    Ports ports = {};
    while (*(text += strspn(text, " ")) != '\0') {
        PortEntry entry;
        text = parseEntry(text, &entry);
        const Link link = examine(entry);
        // A port of 100 Mbit/s fails: intended, the product's ports are gigabit ones.
        const unsigned bits = (link.up ? kLinkUp : 0) | (link.speed >= 1000 ? kGigabit : 0) |
                              (link.duplex == 1 ? kFullDuplex : 0) | kExamined;
        const unsigned shift = Ports::shiftOf(ports.entries++);
        ports.status |= bits << shift;
        ports.expected |= 0xFU << shift;
    }
    return ports;
}

Ports findPorts() {
    const char *const list = RETURN_DEF_STR("SYSTEM_CHECK_ETH_STATUS");
    if (list == nullptr || strcmp(list, kNone) == 0) return {};
    // A private copy: while a switch is asked, another process may change the table and move its records, and a list
    // that ended early would pass a bad board.
    char copy[sizeof ConfigurationRecord::value];
    my_copyText(copy, list, sizeof copy);
    return examinePorts(copy);
}

// In kB. False, and 0, when the kernel does not tell.
bool readMemory(int *total) {
    *total = 0;
    const FileHandle file(fopen("/proc/meminfo", "re"));
    return file != nullptr && fscanf(file, "%*s %d", total) == 1;
}

void copyMac(MacText &mac, const char *key) {
    const char *const stored = RETURN_DEF_STR(key);
    my_copyText(mac, stored != nullptr ? stored : kNone, sizeof mac);
}

void findMacs(Facts *facts) {
    facts->wired = std::min(wireTotal, kMostWired);
    for (int i = 0; i < facts->wired; ++i) copyMac(facts->wiredMacs[i], M(kWiredMacKey, i + 1));
    copyMac(facts->mac24G, k24GMacKey);
    copyMac(facts->mac5G, k5GMacKey);
}

}  // namespace

void findFacts(Facts *facts) {
    facts->product = findProduct();
    facts->radioSlots = wirelessTotal != 0;
    facts->fitted = static_cast<unsigned>(support_freq);
    facts->present = findRadios();
    facts->ports = findPorts();
    const int minimum = RETURN_DEF_INT("SYSTEM_MEMORY_MINIMUM");
    facts->memoryPasses = readMemory(&facts->memory) && minimum < facts->memory;
    facts->country[0] = '\0';
    if (facts->radioSlots) CountryRW(0, facts->country);
    findMacs(facts);
}
