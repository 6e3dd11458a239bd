#include "identity/report.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "daemon/board.h"
#include "firmware/product_block.h"
#include "identity/country.h"
#include "identity/facts.h"
#include "identity/mac.h"
#include "support/configuration.h"
#include "support/shell.h"
#include "support/string_utils.h"

namespace {

constexpr char kColour[] = "\033[1;37;40m";
constexpr char kReset[] = "\033[0m";
constexpr char kBanner[] = "\033[1;37;41m>>>>>>> ERROR <<<<<<<";
constexpr char kPassed[] = "O";
constexpr char kFailed[] = "\033[1;37;41mX\033[1;37;40m";
constexpr char kRule[] = "====================================================";

char *writeHeader(const Facts &facts, bool named) {
    const auto word = [named](bool failed, const char *text) { return named && failed ? text : ""; };
    return my_string(nullptr, "INFO %s%s%s%s\n%s%s%s\n", word((facts.missing & k24G) != 0, "2.4G ERROR "),
                     word((facts.missing & k5G) != 0, "5G ERROR "), word(!facts.ports.pass(), "Ethernet ERROR "),
                     word(!facts.memoryPasses, "Memory ERROR "), kColour, kRule, kReset);
}

char *writeIdentity(char *text, const char *block) {
    return my_string(text, "%s Vendor: %s %s\n%s Product: %s %s\n%s Version: %d.%02d.%02d %s\n", kColour,
                     block + kVendor, kReset, kColour, block + kProduct, kReset, kColour, atoi(block + kMajor),
                     atoi(block + kMinor), atoi(block + kPatch), kReset);
}

char *writeMemory(char *text, const Facts &facts) {
    return my_string(text, "%s Memory: %d kB %s%s\n", kColour, facts.memory, facts.memoryPasses ? "" : kBanner, kReset);
}

char *writeCountry(char *text) {
    char country[3] = "";
    CountryRW(0, country);
    return my_string(text, "%s Country: %s %s\n", kColour, country, kReset);
}

const char *storedMac(const char *key) {
    const char *const mac = RETURN_DEF_STR(key);
    return mac != nullptr ? mac : "none";
}

// A report of more ports is cut anyway. The bound keeps a mistyped number of ports from using up the memory.
constexpr int kMostLines = kReportSize / 20;

char *writeWiredMacs(char *text) {
    for (int port = 1; port <= std::min(wireTotal, kMostLines); ++port) {
        text = my_string(text, "%s Wire MAC %d: %s %s\n", kColour, port, storedMac(M(kWiredMacKey, port)), kReset);
    }
    return text;
}

// Intended: the address is shown in upper case, "none" included.
char *writeRadioMac(char *text, const Facts &facts, const char *label, const char *key, unsigned radio) {
    if ((static_cast<unsigned>(support_freq) & radio) == 0) return text;
    return my_string(text, "%s Wireless %s MAC: %s %s%s\n", kColour, label, my_toupper(M("%s", storedMac(key))),
                     (facts.missing & radio) != 0 ? kBanner : "", kReset);
}

char *writeRadioMacs(char *text, const Facts &facts) {
    text = writeRadioMac(text, facts, "2.4G", k24GMacKey, k24G);
    return writeRadioMac(text, facts, "  5G", k5GMacKey, k5G);
}

char *writePorts(char *text, const Facts &facts) {
    text = my_string(text, "\n%s %s | %s | %s | %s %s\n", kColour, "PortNum", "Link", "Speed", "Duplex", kReset);
    for (int i = 0; i < std::min(wireTotal, kMostLines); ++i) {
        const unsigned bits = facts.ports.bitsOf(static_cast<unsigned>(i));
        const auto verdict = [bits](unsigned bit) { return (bits & bit) != 0 ? kPassed : kFailed; };
        text = my_string(text, "%s    %d    |   %s  |   %s   |    %s   %s\n", kColour, i + 1, verdict(kLinkUp),
                         verdict(kGigabit), verdict(kFullDuplex), kReset);
    }
    return text;
}

char *writeReport(const Facts &facts, bool named) {
    char *text = writeHeader(facts, named);
    text = writeIdentity(text, facts.product);
    text = writeMemory(text, facts);
    if (wirelessTotal != 0) text = writeCountry(text);
    text = writeWiredMacs(text);
    if (wirelessTotal != 0) text = writeRadioMacs(text, facts);
    if (!facts.ports.pass()) text = writePorts(text, facts);
    return my_string(text, "%s%s%s\n", kColour, kRule, kReset);
}

}  // namespace

void getInfo(char *buffer, int pingFlag) {
    char *const text = writeReport(findFacts(), pingFlag != 0);
    // When memory runs out, my_string loses the text so far, and the next line begins a new one without the header and
    // its verdicts. Such a report must not be sent.
    const bool whole = text != nullptr && strncmp(text, "INFO ", 5) == 0;
    if (buffer != nullptr) my_copyText(buffer, whole ? text : "", kReportSize);
    free(text);
}
