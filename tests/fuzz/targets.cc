// The fuzz targets: each feeds one reader of foreign bytes. The sanitizers find what reads or writes out of bounds,
// leaks or is undefined; a target adds what its reader promises.

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "daemon/board.h"
#include "daemon/dispatcher.h"
#include "firmware/product_block.h"
#include "firmware/upload.h"
#include "identity/country.h"
#include "identity/mac.h"
#include "identity/report.h"
#include "image/firmware_image.h"
#include "support/configuration.h"
#include "support/string_utils.h"
#include "support/system_info.h"
#include "tests/fuzz/platform.h"

namespace {

using namespace fuzz;

// Lines of "%%" part the texts of one input; those that are missing are empty.
template <size_t Count>
std::array<std::string, Count> partsOf(std::string input) {
    std::array<std::string, Count> parts;
    for (std::string &part : parts) {
        const size_t end = input.find("\n%%\n");
        part = input.substr(0, end);
        input.erase(0, end != std::string::npos ? end + strlen("\n%%\n") : end);
    }
    return parts;
}

// The text and its NUL in heap memory of exactly that size, so that one byte before or behind it is noticed.
std::vector<char> exact(const std::string &text) { return {text.c_str(), text.c_str() + text.size() + 1}; }

template <size_t Size>
bool isText(const char (&field)[Size]) {
    return memchr(field, '\0', Size) != nullptr;
}

void tokens(const std::string &input) {
    const auto [line, separator, replacement] = partsOf<3>(input);
    for (const int max : {0, 1, 2, 10}) {
        std::vector<char> text = exact(line);
        std::vector<char *> found(static_cast<size_t>(max) + 1);
        const int count = string_parse(found.data(), max, text.data());
        require(count <= max);
        for (const char *token : std::span(found.data(), static_cast<size_t>(std::max(count, 0)))) {
            require(token >= text.data() && token + strlen(token) < text.data() + text.size());
        }
        text = exact(line);
        string_split(found.data(), max, text.data(), separator.c_str());
    }
    std::vector<char> text = exact(line);
    free(my_replaceStr(text.data(), separator.c_str(), replacement.c_str()));
    free(my_replaceChar(text.data(), separator.c_str(), '_'));
    free(my_removeChar(text.data(), ' '));
    my_strrstr(text.data(), separator.c_str());
    require(strlen(url_encode(text.data())) < 1024);
    my_stripChar(text.data(), ' ');
}

void checkTable() {
    const ConfigurationSegment &segment = *get_configuration();
    require(segment.count >= 0 && static_cast<size_t>(segment.count) <= kConfigurationCapacity);
    const std::span records(segment.table, static_cast<size_t>(segment.count));
    for (const auto &record : records) require(isText(record.key) && isText(record.value));
    require(std::is_sorted(records.begin(), records.end(),
                           [](const auto &a, const auto &b) { return strcmp(a.key, b.key) < 0; }));
}

// The default and the persistent file, and a key with its value.
void configuration(const std::string &input) {
    const auto [shipped, persistent, key, value] = partsOf<4>(input);
    put(kDefaultConfiguration, shipped);
    put(kPersistentConfiguration, persistent);
    init_configuration();
    checkTable();
    if (add_configuration(key.c_str(), value.c_str()) == 0 && strlen(key.c_str()) < 32) {
        require(strncmp(RETURN_DEF_STR(key.c_str()), value.c_str(), 63) == 0);
    }
    checkTable();
    del_configuration(key.c_str());
    checkTable();
    save_configuration(key.c_str(), value.c_str());
    checkTable();
}

void productBlock(const std::string &input) {
    put("/tmp/block", input);
    std::vector<char> block(kProductBlockSize);
    getProduct("/tmp/block", nullptr, block.data());
    std::string source = input;
    source.resize(kProductBlockSize);
    getProduct(nullptr, source.data(), block.data());
    for (const size_t field : {kVendor, kProduct, kMajor, kMark}) require(strlen(&block[field]) < 60 - field);
}

void sections(const std::string &input) {
    put("/tmp/image", input);
    write2tmp("/tmp/image", static_cast<uint32_t>(input.size()));
}

// The system's record and its two tables; the second is read as a list of values as well.
void columns(const std::string &input) {
    auto [record, html, entries] = partsOf<3>(input);
    record.resize(kSystemInfoSize, ' ');
    put(kSystemInfo, record);
    put("/etc/html.info", html);
    put("/etc/entry.info", entries);
    std::vector<char> read(kSystemInfoSize);
    my_systemInfo(read.data());
    require(std::all_of(std::begin(html_fmt), std::end(html_fmt), isText<30>));
    require(std::all_of(std::begin(entry_num), std::end(entry_num), isText<20>));
    std::vector<char> table(3 * 8);
    read_parameter("/etc/html.info", table.data(), 3, 8, 0x1000);
    read_value_list("/etc/html.info", table.data(), 3, 8);
}

// A session: commands that end at a line end, each followed by the payload that it announces.
void commands(const std::string &input) {
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
    require(send(ends[1], input.data(), input.size(), 0) == static_cast<ssize_t>(input.size()));
    close(ends[1]);
    for (const char *staged : {"/tmp/kernel.img", "/tmp/rootfs.img", "/tmp/firmware.img"}) unlink(staged);
    output = "0123456789abcdef0123456789abcdef  digest\nlink: port:1 link:up speed:1000baseT full-duplex\n";
    std::vector<char> pkbuf(kPkbufSize);
    for (;;) {
        std::fill_n(pkbuf.begin(), 64, '\0');
        const ssize_t peeked = recv(ends[0], pkbuf.data(), 64, MSG_PEEK);
        if (peeked <= 0) break;
        const auto lineEnd = std::find(pkbuf.begin(), pkbuf.begin() + peeked, '\n');
        const int length = static_cast<int>(lineEnd - pkbuf.begin());
        recv(ends[0], pkbuf.data(), static_cast<size_t>(std::min<ssize_t>(length + 1, peeked)), 0);
        std::fill(lineEnd, pkbuf.begin() + 64, '\0');
        ParseCmd(ends[0], pkbuf.data(), std::max(length, 1));
        require(memchr(pkbuf.data(), '\0', pkbuf.size()) != nullptr);
    }
    close(ends[0]);
}

// The list of slots, an address, the place of the country code, and a code.
void slots(const std::string &input) {
    const auto [list, address, place, country] = partsOf<4>(input);
    add_configuration("SYSTEM_MAC_ARGS", list.c_str());
    add_configuration("SYSTEM_COUNTRY_ARGS", place.c_str());
    initialFunc();
    wireTotal = std::min(wireTotal, 8);  // each costs a command: a number of any size is no fault, only slow
    setMac(exact(address).data());
    std::vector<char> code = {country.c_str()[0], country.empty() ? '\0' : country.c_str()[1]};
    CountryRW(1, code.data());
    code.resize(3);
    CountryRW(0, code.data());
    require(code[2] == '\0' && truncate("/dev/mtdblock6", 32768) == 0);
}

// The list of ports, what the switch says, a radio's name and address, and the system's record.
void ports(const std::string &input) {
    auto [list, shown, radio, address, record] = partsOf<5>(input);
    add_configuration("SYSTEM_CHECK_ETH_STATUS", list.c_str());
    add_configuration("WIFI_5G_DEVICE", radio.c_str());
    add_configuration("WIFI_5G_MAC", address.c_str());
    output = shown;
    exchangePorts(list.c_str());
    record.resize(kSystemInfoSize, ' ');
    put(kSystemInfo, record);
    std::vector<char> report(kReportSize);
    getInfo(report.data(), 1);
    require(memchr(report.data(), '\0', report.size()) != nullptr && strncmp(report.data(), "INFO ", 5) == 0);
}

// An image that fwimage finds nothing wrong with, its digest aside, is staged by the board as fwimage shows it.
void image(const std::string &input) {
    put("/tmp/image", input);
    const fwimage::Contents contents = fwimage::inspect("/tmp/image");
    if (!contents.fault.empty() && !contents.fault.starts_with("the digest")) return;
    const size_t length = input.size() - 33;
    require(truncate("/tmp/image", static_cast<off_t>(length)) == 0);
    write2tmp("/tmp/image", static_cast<uint32_t>(length));
    std::map<std::string, std::string> expected;
    std::string partition;
    for (const fwimage::Section &section : contents.sections) {
        constexpr const char *kNames[] = {"kernel", "rootfs", "firmware"};
        const unsigned long number = strtoul(section.name.c_str(), nullptr, 10);
        if (number >= 2 && number < 2 + std::size(kNames)) partition = kNames[number - 2];
        expected["/tmp/" + partition + ".img"] = input.substr(section.offset, section.length);
    }
    for (const auto &[path, data] : expected) {
        std::ostringstream staged;
        staged << std::ifstream(path, std::ios::binary).rdbuf();
        require(staged.str() == data);
    }
}

constexpr struct {
    const char *name;
    void (*run)(const std::string &input);
} kTargets[] = {
    {"tokens", tokens},
    {"configuration", configuration},
    {"product_block", productBlock},
    {"sections", sections},
    {"columns", columns},
    {"commands", commands},
    {"slots", slots},
    {"ports", ports},
    {"image", image},
};

const auto *chosen = std::end(kTargets);

}  // namespace

// The first argument names the target; the others are libFuzzer's.
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv) {
    for (const auto &target : kTargets) {
        if (*argc > 1 && strcmp((*argv)[1], target.name) == 0) chosen = &target;
    }
    if (chosen == std::end(kTargets)) {
        for (const auto &target : kTargets) puts(target.name);
        exit(2);
    }
    (*argv)[1] = (*argv)[0];
    ++*argv;
    --*argc;
    enterBoard();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    reset();
    chosen->run(std::string(data, data + size));
    return 0;
}
