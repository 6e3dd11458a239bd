#include "identity/report.h"

#include <cstdlib>
#include <cstring>

#include "firmware/product_block.h"
#include "identity/facts.h"
#include "support/shell.h"
#include "support/string_utils.h"

namespace {

constexpr char kColour[] = "\033[1;37;40m";
constexpr char kReset[] = "\033[0m";
constexpr char kBanner[] = "\033[1;37;41m>>>>>>> ERROR <<<<<<<";
constexpr char kPassed[] = "O";
constexpr char kFailed[] = "\033[1;37;41mX\033[1;37;40m";
constexpr char kRule[] = "====================================================";

bool isMissing(const Facts &facts, unsigned radio) { return (facts.fitted & ~facts.present & radio) != 0; }

char *writeHeader(const Facts &facts, bool named) {
    const auto word = [named](bool failed, const char *text) { return named && failed ? text : ""; };
    return my_string(nullptr, "INFO %s%s%s%s\n%s%s%s\n", word(isMissing(facts, k24G), "2.4G ERROR "),
                     word(isMissing(facts, k5G), "5G ERROR "), word(!facts.ports.pass(), "Ethernet ERROR "),
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

char *writeWiredMacs(char *text, const Facts &facts) {
    for (int i = 0; i < facts.wired; ++i) {
        text = my_string(text, "%s Wire MAC %d: %s %s\n", kColour, i + 1, facts.wiredMacs[i], kReset);
    }
    return text;
}

// In upper case, "none" too: intended, the station reads it so.
char *writeRadioMac(char *text, const Facts &facts, const char *label, const char *mac, unsigned radio) {
    if ((facts.fitted & radio) == 0) return text;
    return my_string(text, "%s Wireless %s MAC: %s %s%s\n", kColour, label, my_toupper(M("%s", mac)),
                     isMissing(facts, radio) ? kBanner : "", kReset);
}

char *writeRadios(char *text, const Facts &facts) {
    text = writeRadioMac(text, facts, "2.4G", facts.mac24G, k24G);
    return writeRadioMac(text, facts, "  5G", facts.mac5G, k5G);
}

char *writePorts(char *text, const Facts &facts) {
    text = my_string(text, "\n%s %s | %s | %s | %s %s\n", kColour, "PortNum", "Link", "Speed", "Duplex", kReset);
    for (int i = 0; i < facts.wired; ++i) {
        const unsigned bits = facts.ports.bitsOf(static_cast<unsigned>(i));
        const auto verdict = [bits](unsigned bit) { return (bits & bit) != 0 ? kPassed : kFailed; };
        text = my_string(text, "%s    %d    |   %s  |   %s   |    %s   %s\n", kColour, i + 1, verdict(kLinkUp),
                         verdict(kGigabit), verdict(kFullDuplex), kReset);
    }
    return text;
}

}  // namespace

char *writeReport(const Facts &facts, bool named) {
    char *text = writeHeader(facts, named);
    text = writeIdentity(text, facts.product);
    text = writeMemory(text, facts);
    if (facts.radioSlots) text = my_string(text, "%s Country: %s %s\n", kColour, facts.country, kReset);
    text = writeWiredMacs(text, facts);
    if (facts.radioSlots) text = writeRadios(text, facts);
    if (!facts.ports.pass()) text = writePorts(text, facts);
    return my_string(text, "%s%s%s\n", kColour, kRule, kReset);
}

void getInfo(char *buffer, int pingFlag) {
    // Neither on the stack, whose pages the daemon would keep, nor static.
    Facts *const facts = static_cast<Facts *>(calloc(1, sizeof(Facts)));
    if (facts != nullptr) findFacts(facts);
    char *const text = facts != nullptr ? writeReport(*facts, pingFlag != 0) : nullptr;
    // Each step above lengthens the text by one line. When memory runs out, that step loses what was written so far,
    // and the next one begins a new text, without the header and its verdicts. No report then, rather than such a one.
    const bool whole = text != nullptr && strncmp(text, "INFO ", 5) == 0;
    if (buffer != nullptr) my_copyText(buffer, whole ? text : "", kReportSize);
    free(text);
    free(facts);
}
