#include "identity/facts.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "daemon/board.h"
#include "firmware/product_block.h"
#include "identity/ethernet_link.h"
#include "support/configuration.h"
#include "support/handle.h"
#include "support/shell.h"
#include "support/string_utils.h"
#include "support/system_info.h"

namespace {

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

// Returns the bit of the radio to whose interface a line of /proc/net/dev belongs, or 0. A missing key matches no line,
// an empty value every line.
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

// Copies as much of the field at `text` as fits. Returns the text after the field and its end.
const char *cutField(char (&field)[32], const char *text, char end) {
    const char ends[] = {end, '\0'};
    const size_t length = strcspn(text, ends);
    my_copyText(field, text, std::min(length + 1, sizeof field));
    return text[length] != '\0' ? text + length + 1 : text + length;
}

// Reads an entry NAME_METHOD_PORT and returns the text after it. Intended: only the port ends at a blank. An entry that
// lacks a field swallows the next one and fails the check, so a list with a mistake never passes a board.
const char *parseEntry(const char *text, PortEntry *entry) {
    text = cutField(entry->name, text, '_');
    text = cutField(entry->method, text, '_');
    return cutField(entry->port, text, ' ');
}

const char *afterColon(const char *word) {
    const char *const colon = strchr(word, ':');
    return colon != nullptr ? colon + 1 : nullptr;
}

// Reads a line such as "link: port:1 link:up speed:1000baseT full-duplex", and cuts it into words. Returns false
// unless the line belongs to the port and its link is up.
bool parseSwitchLine(char *line, const char *port, Link *link) {
    if (strstr(line, "link:") == nullptr) return false;
    const char *words[5];
    char *rest = line;
    for (const char *&word : words) {
        word = strtok_r(nullptr, kWhiteSpace, &rest);
        if (word == nullptr) word = "";
    }
    const char *const number = afterColon(words[1]);
    // Intended: a substring test, so a configured port 10 also matches the switch's ports 1 and 0.
    if (number == nullptr || strstr(port, number) == nullptr || strstr(words[2], ":up") == nullptr) return false;
    const char *const speed = afterColon(words[3]);  // a negative number counts as 0
    link->up = true;
    link->speed = speed != nullptr ? static_cast<uint32_t>(std::max(atoi(speed), 0)) : 0;
    link->duplex = strcmp(words[4], "full-duplex") == 0;
    return true;
}

// noinline: keeps this buffer out of the frame that is live during popen, which takes 6 kB of stack.
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
        // Intended: a port of 100 Mbit/s fails.
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
    if (list == nullptr || strcmp(list, "none") == 0) return {};
    // A private copy: while a switch is queried, another process may change the table and move its records. A list that
    // changed or ended early could pass a bad board.
    char copy[sizeof ConfigurationRecord::value];
    my_copyText(copy, list, sizeof copy);
    return examinePorts(copy);
}

// Stores the memory in kB. False, with 0 stored, when it cannot be read.
bool readMemory(int *total) {
    *total = 0;
    const FileHandle file(fopen("/proc/meminfo", "re"));
    return file != nullptr && fscanf(file, "%*s %d", total) == 1;
}

}  // namespace

Facts findFacts() {
    Facts facts = {};
    facts.product = findProduct();
    facts.missing = static_cast<unsigned>(support_freq) & ~findRadios();
    facts.ports = findPorts();
    const int minimum = RETURN_DEF_INT("SYSTEM_MEMORY_MINIMUM");
    facts.memoryPasses = readMemory(&facts.memory) && minimum < facts.memory;
    return facts;
}
