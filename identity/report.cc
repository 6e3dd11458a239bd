#include "identity/report.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "daemon/board.h"
#include "firmware/product_block.h"
#include "identity/country.h"
#include "identity/ethernet_link.h"
#include "support/configuration.h"
#include "support/handle.h"
#include "support/shell.h"
#include "support/string_utils.h"
#include "support/system_info.h"

namespace {

constexpr char kColour[] = "\033[1;37;40m";
constexpr char kReset[] = "\033[0m";
constexpr char kBanner[] = "\033[1;37;41m>>>>>>> ERROR <<<<<<<";
constexpr char kPassed[] = "O";
constexpr char kFailed[] = "\033[1;37;41mX\033[1;37;40m";
constexpr char kNone[] = "none";
constexpr char kRule[] = "====================================================";

constexpr unsigned k24G = 1;  // bits of the radios, fitted or present
constexpr unsigned k5G = 2;

// Four bits of the status word for each port entry.
constexpr unsigned kLinkUp = 1;
constexpr unsigned kGigabit = 2;
constexpr unsigned kFullDuplex = 4;
constexpr unsigned kExamined = 8;
constexpr unsigned kEntryBits = 4;
constexpr unsigned kEntryMask = 0xF;

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

struct Ports {
    uint32_t status;
    uint32_t expected;
    unsigned entries;
    bool pass() const { return status == expected; }
};

struct Facts {
    unsigned radios;  // present
    Ports ports;
    int memory;  // kB
    bool memoryPasses;
};

void loadProduct() {
    if (systemProduct[0] != '\0') return;
    char record[kSystemInfoSize];
    if (my_systemInfo(record) < 0) return;
    memcpy(systemProduct, record, kProductBlockSize);
    cutProductFields(systemProduct);
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

// Copies the field at `text`, as far as it fits, and returns the text behind it. A field ends at an underscore, or with
// its entry at a blank or the list's end.
const char *cutField(char (&field)[32], const char *text, const char *ends) {
    const size_t length = strcspn(text, ends);
    my_copyText(field, text, length < sizeof field ? length + 1 : sizeof field);
    return text[length] == '_' ? text + length + 1 : text + length;
}

const char *parseEntry(const char *text, PortEntry *entry) {
    text = cutField(entry->name, text, "_ ");
    text = cutField(entry->method, text, "_ ");
    return cutField(entry->port, text, " ");
}

const char *behindColon(const char *token) {
    const char *const colon = strchr(token, ':');
    return colon != nullptr ? colon + 1 : nullptr;
}

// Reads a line such as "link: port:1 link:up speed:1000baseT full-duplex". False unless it is about the port and its
// link is up.
bool parseSwitchLine(const char *line, const char *port, Link *link) {
    char tokens[4][32] = {};
    if (strstr(line, "link:") == nullptr) return false;
    [[maybe_unused]] const int count =
        sscanf(line, "%*s %31s %31s %31s %31s", tokens[0], tokens[1], tokens[2], tokens[3]);
    const char *const number = behindColon(tokens[0]);
    // The configured port contains the switch's number, so that a configured 10 also takes ports 1 and 0: intended.
    if (number == nullptr || strstr(port, number) == nullptr || strstr(tokens[1], ":up") == nullptr) return false;
    const char *const speed = behindColon(tokens[2]);
    link->up = true;
    link->speed = speed != nullptr ? static_cast<uint32_t>(atoi(speed)) : 0;
    link->duplex = strcmp(tokens[3], "full-duplex") == 0;
    return true;
}

Link askSwitch(const PortEntry &entry) {
    Link link = {};
    FILE *const output = popen(M("/sbin/swconfig dev %s show", entry.name), "r");
    if (output == nullptr) return link;
    char line[512];
    while (fgets(line, sizeof line, output) != nullptr && !parseSwitchLine(line, entry.port, &link)) {
    }
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

// Bits of the n-th entry, from 0. The word holds eight; later ones fall onto the first ones' bits.
unsigned shiftOf(unsigned entry) { return entry * kEntryBits % 32; }

Ports examinePorts() {
    Ports ports = {};
    const char *text = RETURN_DEF_STR("SYSTEM_CHECK_ETH_STATUS");
    if (text == nullptr || strcmp(text, kNone) == 0) return ports;
    for (unsigned i = 0;; ++i) {
        text += strspn(text, " ");
        if (*text == '\0') return ports;
        PortEntry entry;
        text = parseEntry(text, &entry);
        const Link link = examine(entry);
        // A port of 100 Mbit/s fails: intended, the product's ports are gigabit ones.
        const unsigned bits = (link.up ? kLinkUp : 0) | (link.speed >= 1000 ? kGigabit : 0) |
                              (link.duplex == 1 ? kFullDuplex : 0) | kExamined;
        ports.status |= bits << shiftOf(i);
        ports.expected |= kEntryMask << shiftOf(i);
        ports.entries = i + 1;
    }
}

// In kB. False, and 0, when the kernel does not tell.
bool readMemory(int *total) {
    *total = 0;
    const FileHandle file(fopen("/proc/meminfo", "re"));
    return file != nullptr && fscanf(file, "%*s %d", total) == 1;
}

Facts collect() {
    loadProduct();
    Facts facts = {};
    facts.radios = findRadios();
    facts.ports = examinePorts();
    const int minimum = RETURN_DEF_INT("SYSTEM_MEMORY_MINIMUM");
    facts.memoryPasses = readMemory(&facts.memory) && minimum < facts.memory;
    return facts;
}

bool isFitted(unsigned radio) { return (static_cast<unsigned>(support_freq) & radio) != 0; }

char *writeHeader(const Facts &facts, int pingFlag) {
    const bool named = pingFlag != 0;
    const auto word = [named](bool failed, const char *text) { return named && failed ? text : ""; };
    return my_string(
        nullptr, "INFO %s%s%s%s\n%s%s%s\n", word(isFitted(k24G) && (facts.radios & k24G) == 0, "2.4G ERROR "),
        word(isFitted(k5G) && (facts.radios & k5G) == 0, "5G ERROR "), word(!facts.ports.pass(), "Ethernet ERROR "),
        word(!facts.memoryPasses, "Memory ERROR "), kColour, kRule, kReset);
}

char *writeIdentity(char *text) {
    return my_string(text, "%s Vendor: %s %s\n%s Product: %s %s\n%s Version: %d.%02d.%02d %s\n", kColour,
                     systemProduct + kVendor, kReset, kColour, systemProduct + kProduct, kReset, kColour,
                     atoi(systemProduct + kMajor), atoi(systemProduct + kMinor), atoi(systemProduct + kPatch), kReset);
}

char *writeMemory(char *text, const Facts &facts) {
    return my_string(text, "%s Memory: %d kB %s%s\n", kColour, facts.memory, facts.memoryPasses ? "" : kBanner, kReset);
}

char *writeCountry(char *text) {
    char country[3] = "";
    CountryRW(0, country);
    return my_string(text, "%s Country: %s %s\n", kColour, country, kReset);
}

char *writeWiredMacs(char *text) {
    for (int i = 1; i <= wireTotal; ++i) {
        const char *const mac = RETURN_DEF_STR(M("PORT%d_ORIG_MAC", i));
        text = my_string(text, "%s Wire MAC %d: %s %s\n", kColour, i, mac != nullptr ? mac : kNone, kReset);
    }
    return text;
}

char *writeRadioMac(char *text, const char *label, const char *key, bool present) {
    const char *const stored = RETURN_DEF_STR(key);
    const char *const mac = stored != nullptr ? my_toupper(M("%s", stored)) : kNone;
    return my_string(text, "%s Wireless %s MAC: %s %s%s\n", kColour, label, mac, present ? "" : kBanner, kReset);
}

char *writeRadios(char *text, const Facts &facts) {
    if (wirelessTotal == 0) return text;
    if (isFitted(k24G)) text = writeRadioMac(text, "2.4G", "WIFI_2.4G_MAC", (facts.radios & k24G) != 0);
    if (isFitted(k5G)) text = writeRadioMac(text, "  5G", "WIFI_5G_MAC", (facts.radios & k5G) != 0);
    return text;
}

char *writePorts(char *text, const Ports &ports) {
    if (ports.pass()) return text;
    text = my_string(text, "\n%s %s | %s | %s | %s %s\n", kColour, "PortNum", "Link", "Speed", "Duplex", kReset);
    for (int i = 1; i <= wireTotal; ++i) {
        const unsigned entry = static_cast<unsigned>(i) - 1;
        const unsigned bits = entry < ports.entries ? ports.status >> shiftOf(entry) : 0;
        const auto verdict = [bits](unsigned bit) { return (bits & bit) != 0 ? kPassed : kFailed; };
        text = my_string(text, "%s    %d    |   %s  |   %s   |    %s   %s\n", kColour, i, verdict(kLinkUp),
                         verdict(kGigabit), verdict(kFullDuplex), kReset);
    }
    return text;
}

}  // namespace

void getInfo(char *buffer, int pingFlag) {
    const Facts facts = collect();
    char *text = writeHeader(facts, pingFlag);
    text = writeIdentity(text);
    text = writeMemory(text, facts);
    if (wirelessTotal != 0) text = writeCountry(text);
    text = writeWiredMacs(text);
    text = writeRadios(text, facts);
    text = writePorts(text, facts.ports);
    text = my_string(text, "%s%s%s\n", kColour, kRule, kReset);
    // Memory that ran out on the way took the beginning along: no report then, rather than one without its verdicts.
    const bool whole = text != nullptr && strncmp(text, "INFO ", 5) == 0;
    if (buffer != nullptr) my_copyText(buffer, whole ? text : "", kReportSize);
    free(text);
}
