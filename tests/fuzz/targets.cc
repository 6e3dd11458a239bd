// The fuzz targets. Each passes its input to code that reads foreign bytes, on the native board. The sanitizers find
// accesses out of bounds, leaks and undefined behaviour; the target checks what the code promises. Functions that only
// read their arguments replace what the C library does outside the process: shell, log, network and shared memory.
//
// With libFuzzer: TARGET=NAME fuzz [ITS ARGUMENTS]. Without: every input of the corpus, with mutations that are the
// same in every run.

#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <nlohmann/json.hpp>
#include <random>
#include <span>
#include <sstream>

#include "daemon/board.h"
#include "daemon/discovery.h"
#include "daemon/dispatcher.h"
#include "daemon/qc_connection.h"
#include "firmware/product_block.h"
#include "firmware/upload.h"
#include "image/firmware_image.h"
#include "station/base/text.h"
#include "station/line/line_file.h"
#include "station/page/guard.h"
#include "station/page/query.h"
#include "station/plan/plan.h"
#include "station/run/record_json.h"
#include "station/store/pool.h"
#include "station/wire/discovery.h"
#include "station/wire/script.h"
#include "support/configuration.h"
#include "support/handle.h"
#include "support/shell.h"
#include "support/string_utils.h"
#include "support/system_info.h"

namespace {

namespace fs = std::filesystem;

std::string printed;                                  // the output of every program that popen starts
void *const segment = calloc(1, kConfigurationSize);  // the sanitizer watches its bounds
int connected = -1;                                   // the board's end of the connection
std::vector<std::string> logged;                      // the replies in the log
std::vector<std::string> arriving, answered;          // frames to be received, the last one first, and frames sent

// Ends the run with a finding, the line of the call, unless `held`.
void require(bool held, int line = __builtin_LINE()) {
    if (held) return;
    fprintf(stderr, "line %d\n", line);
    abort();
}

// Writes a file without a C++ stream, whose writes would follow the rules of flash.
void put(const std::string &path, std::string_view content) {
    FileHandle file(fopen(path.c_str(), "w"));
    require(file != nullptr && fwrite(content.data(), 1, content.size(), file) == content.size() && file.close() == 0);
}

std::string get(const std::string &path) {
    std::string content(fs::file_size(path), '\0');
    const FileHandle file(fopen(path.c_str(), "r"));
    require(fread(content.data(), 1, content.size(), file) == content.size());
    return content;
}

// Removes the next text from an input whose texts are separated by lines of "%%", and returns it. A missing text is
// empty.
std::string next(std::string &input) {
    const std::string text = input.substr(0, input.find("\n%%\n"));
    input.erase(0, text.size() + strlen("\n%%\n"));
    return text;
}

// Returns the ends of a connection. At the first one these bytes arrive, and then the end.
std::array<int, 2> connectionWith(const std::string &bytes) {
    std::array<int, 2> ends;
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) == 0);
    require(send(ends[1], bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
    shutdown(ends[1], SHUT_WR);
    return ends;
}

template <size_t Size>
bool isText(const char (&field)[Size]) {
    return memchr(field, '\0', Size) != nullptr;
}

void checkTable() {
    const ConfigurationSegment &table = *get_configuration();
    require(table.count >= 0 && static_cast<size_t>(table.count) <= kConfigurationCapacity);
    const std::span records(table.table, static_cast<size_t>(table.count));
    for (const auto &record : records) require(isText(record.key) && isText(record.value));
    require(std::is_sorted(records.begin(), records.end(),
                           [](const auto &a, const auto &b) { return strcmp(a.key, b.key) < 0; }));
}

// Input: the default file, the persistent file, a key and its value.
void configuration(std::string input) {
    put(kDefaultConfiguration, next(input));
    put(kPersistentConfiguration, next(input));
    const std::string key = next(input), value = next(input);
    init_configuration();
    checkTable();
    if (add_configuration(key.c_str(), value.c_str()) == 0 && strlen(key.c_str()) < 32)
        require(strncmp(RETURN_DEF_STR(key.c_str()), value.c_str(), 63) == 0);
    checkTable();
    del_configuration(key.c_str());
    checkTable();
    save_configuration(key.c_str(), value.c_str());
    checkTable();
}

// Input: an image. If fwimage finds no fault but the digest, the board must stage the sections that fwimage shows.
void image(std::string input) {
    put("/tmp/image", input);
    std::vector<char> block(kProductBlockSize);
    getProduct("/tmp/image", nullptr, block.data());
    for (const size_t field : {kVendor, kProduct, kMajor, kMark}) require(strlen(&block[field]) < 60 - field);
    const fwimage::Contents contents = fwimage::inspect("/tmp/image");
    const bool good = contents.fault.empty() || contents.fault.starts_with("the digest");
    const size_t length = good ? input.size() - 33 : input.size();
    require(truncate("/tmp/image", static_cast<off_t>(length)) == 0);
    write2tmp("/tmp/image", static_cast<uint32_t>(length));
    std::map<std::string, std::string> expected;
    std::string partition;
    for (const fwimage::Section &section : contents.sections) {
        constexpr const char *kNames[] = {"boot", "env", "kernel", "rootfs", "firmware", "config", "ART"};
        const unsigned long number = strtoul(section.name.c_str(), nullptr, 10);
        if (number < std::size(kNames)) partition = kNames[number];
        if (good) expected["/tmp/" + partition + ".img"] = input.substr(section.offset, section.length);
    }
    for (const auto &[path, data] : expected) require(get(path) == data);
}

void loadSettings(const std::string &settings) {
    put(kDefaultConfiguration, get("/src/board/rootfs/etc/.config") + settings);
    put(kPersistentConfiguration, "");
    init_configuration();
    initialFunc();
    wireTotal = std::min(wireTotal, 8);  // each port runs a command: more of them are only slower
}

// Input: settings that are appended to the board's, the output of programs, the system's record and its two tables, and
// a session: commands that end at a line end, each followed by its payload.
void session(std::string input) {
    const std::string settings = next(input);
    loadSettings(settings);
    printed = next(input);
    std::string record = next(input);
    record.resize(kSystemInfoSize, ' ');
    put(kSystemInfo, record);
    put("/etc/html.info", next(input));
    put("/etc/entry.info", next(input));
    const std::string sent = next(input);
    const auto ends = connectionWith(sent);
    close(ends[1]);
    std::vector<char> pkbuf(kPkbufSize);
    for (;;) {
        std::fill_n(pkbuf.begin(), 64, '\0');
        size_t length = 0;
        while (length < 64 && recv(ends[0], &pkbuf[length], 1, 0) == 1 && pkbuf[length] != '\n') ++length;
        if (length == 0 && pkbuf[0] != '\n') break;
        if (length < 64) pkbuf[length] = '\0';
        ParseCmd(ends[0], pkbuf.data(), std::max(static_cast<int>(length), 1));
        require(memchr(pkbuf.data(), '\0', pkbuf.size()) != nullptr);
    }
    close(ends[0]);
    exchangePorts(settings.c_str());
    require(std::all_of(std::begin(html_fmt), std::end(html_fmt), isText<30>));
    require(std::all_of(std::begin(entry_num), std::end(entry_num), isText<20>));
    require(truncate("/flash/mtd6", 1 << 16) == 0);
}

// Input: a plan or a line's file. Each fault must say where it is.
void plan(std::string input) {
    const fs::path file = "/tmp/plan.yaml";
    put(file, input);
    put("/tmp/five", "12345");
    station::Names names{{"serial", "line"}, {"mac"}};
    try {
        for (const station::Step &step : station::loadPlan(file, "/tmp", names).steps) {
            station::Variables groups;
            step.expected.judge(step.title({{"serial", input}}), groups);
        }
    } catch (const station::PlanError &error) {
        std::istringstream faults(error.what());
        for (std::string fault; std::getline(faults, fault);) require(fault.starts_with(file.string() + ":"));
    }
    try {
        if (station::isLineFile(file)) station::loadLine(file, nullptr);
    } catch (const station::PlanError &) {
    }
}

// Input: a pool's file. The pool must have each value as it stands in the file; after a refusal, it has none.
void pool(std::string input) {
    static station::Database store("/tmp/pool.db");
    put("/tmp/pool.csv", input);
    for (const char *const kind : {"values", "addresses"}) {
        int64_t added = 0;
        try {
            added = station::importFile(store, kind, "/tmp/pool.csv", kind, -1).added;
        } catch (const station::Refusal &) {
        }
        const auto rows = store.ask("SELECT value FROM pool_rows").rows;
        for (const auto &row : rows) {
            const std::string quoted = station::replaced(*row[0], '"', "\"\"");
            require(input.find(*row[0]) != std::string::npos || input.find(quoted) != std::string::npos);
        }
        const auto addresses = store.ask("SELECT coalesce(sum(last - first + 1), 0) FROM ranges").rows[0][0];
        require(rows.size() + std::stoull(*addresses) == size_t(added));
        for (const char *const table : {"pool_rows", "ranges"}) store.run(std::string("DELETE FROM ") + table);
    }
}

// Input: the bytes of a board. The station must read valid replies until the first fault.
void replies(std::string input) {
    const auto ends = connectionWith(input);
    const station::Socket board(ends[1]);
    station::Session session{station::Socket(ends[0])};
    try {
        for (;;) {
            const std::string reply = session.receiveReply(station::Milliseconds(1000));
            require(reply.size() < station::kLongestReply && reply.find('\0') == std::string::npos);
            require(station::oneLine(reply).find('\n') == std::string::npos);
        }
    } catch (const station::SessionError &) {
    }
}

// Input: what a board sends of a script. The station must keep the whole output, and take no status that no program
// has.
void results(std::string input) {
    const auto ends = connectionWith(input);
    const station::Socket board(ends[1]);
    station::Session session{station::Socket(ends[0])};
    try {
        const station::ScriptResult result =
            station::receiveResult(std::move(session), station::Clock::now() + station::Milliseconds(1000));
        const std::string status = input.substr(0, input.find('\n'));
        require(status.find_first_not_of("-0123456789") == std::string::npos);
        require(result.status >= 0 && result.status <= 255 && std::stoi(status) == result.status);
        require(input == status + "\n" + result.output && result.cut == 0);
    } catch (const station::SessionError &) {
    }
}

// Input: the record of a run, which a person may have edited. What is read of it is kept: it is the same when it is
// written and read again.
void record(std::string input) {
    try {
        const std::string text = station::dump(station::parseRecord(input));
        require(station::dump(station::parseRecord(text)) == text);
    } catch (const std::runtime_error &error) {
        require(std::string(error.what()).starts_with("this is not the record of a run: "));
    }
}

// Input: frames that answer the discovery of a board.
void discovery(std::string input) {
    std::array<int, 2> ends;
    require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends.data()) == 0);
    const station::FrameLink link(station::Socket(ends[0]), 0x020000000002);
    const station::Socket other(ends[1]);
    while (!input.empty()) {
        const std::string frame = next(input);
        send(ends[1], frame.data(), frame.size(), 0);
    }
    shutdown(ends[1], SHUT_WR);
    try {
        const station::Mac board = station::discover(link, station::kBroadcast, 60, station::Milliseconds(1));
        require(station::parseMac(station::formatMac(board)) == board);
    } catch (const station::SessionError &) {
    }
}

// Input: the bytes of a station. The board must send the replies that it logs, each in a frame of its own: 64 bytes, or
// a longer text and its NUL.
void connection(std::string input) {
    loadSettings("");
    const auto ends = connectionWith(input);
    connected = ends[0];
    std::vector<char> pkbuf(kPkbufSize);
    serveStation(pkbuf.data());
    close(ends[0]);
    for (const std::string &reply : logged) {
        std::string frame(std::max<size_t>(64, reply.size() + (reply.size() > 64 ? 1 : 0)), '\0');
        require(recv(ends[1], frame.data(), frame.size(), MSG_WAITALL) == static_cast<ssize_t>(frame.size()));
        require(frame.starts_with(reply) && (frame.size() == reply.size() || frame[reply.size()] == '\0'));
    }
    require(recv(ends[1], pkbuf.data(), 1, 0) < 1);
    close(ends[1]);
}

// Input: a frame, to the board's own address if it begins with "board!". The board must answer it if it is a request,
// and otherwise the request that comes next.
void listener(std::string input) {
    const std::string everyone(6, '\xFF'), request = everyone + "sender\x55\xAA";
    arriving = {request};
    run_fabtestd();
    const std::string own = answered.at(0).substr(6, 6);
    answered.clear();
    if (input.starts_with("board!")) input.replace(0, own.size(), own);
    arriving = {request, input, "otherssender\x55\xAA"};
    run_fabtestd();
    input.resize(std::min<size_t>(input.size(), 1024));
    const std::string to = input.substr(0, 6);
    const bool asked = input.size() >= 14 && input.substr(12, 2) == "\x55\xAA" && (to == everyone || to == own);
    const std::string &frame = asked ? input : request;
    const std::string back = asked && to == own ? frame.substr(6, 6) : everyone;
    require(answered == std::vector(3, back + own + "\xAA\x55" + frame.substr(14)));
}

// Input: the head of a request to the page, and the names and values of its query. Nothing may be changed by another
// site, nor by another machine without the token. What a page may ask of the store is a period, and links are ASCII.
void requests(std::string input) {
    station::RequestHead head;
    for (std::string *const field :
         {&head.method, &head.path, &head.local, &head.peer, &head.host, &head.origin, &head.type, &head.authorization})
        *field = next(input).c_str();
    station::PageRequest request{head.path, {}, {}};
    for (std::string name; !input.empty(); request.parameters.emplace(name, next(input))) name = next(input);
    const station::Route route{head.path, {}, station::RouteKind::kChange};
    station::Guard guard(8080, "token", [](const std::string &) {});
    if (const auto refusal = guard.refusal(&route, head)) {
        require(nlohmann::json::accept(refusal->body));
    } else {
        require(head.method == "POST" && (head.peer.starts_with("127.") || head.authorization == "Bearer token"));
        require(head.origin.empty() || strcasecmp(head.origin.c_str(), ("http://" + head.host).c_str()) == 0);
    }
    try {
        const station::Query query(request);
        require(station::parseIsoTime(query.filter.period.since).has_value());
        const std::string link = query.link("/runs");
        require(std::all_of(link.begin(), link.end(), [](unsigned char c) { return c > ' ' && c < 0x7F; }));
    } catch (const station::Refusal &) {
    }
}

// Input: a text, a part to be replaced, and its replacement.
void texts(std::string input) {
    const std::string bytes = next(input), text = bytes.c_str(), old = next(input).c_str(), added = input.c_str();
    using Heap = std::unique_ptr<char, decltype(&free)>;
    url_encode(text.c_str());
    const Heap replaced(my_replaceStr(text.c_str(), old.c_str(), added.c_str()), free);
    const Heap line(strdup(text.c_str()), free), pieces(strdup(text.c_str()), free);
    char *tokens[11];
    const int count = string_parse(tokens, 10, line.get());
    require(count >= -1 && count <= 10 && (count < 0 || tokens[count] == nullptr));
    for (int i = 0; i < count; ++i) require(tokens[i] + strlen(tokens[i]) <= line.get() + text.size());
    require(string_split(tokens, 10, pieces.get(), old.c_str()) == 10 && tokens[10] == nullptr);
    put("/tmp/list", bytes);
    char values[4][8] = {};
    for (const bool list : {true, false}) {
        const int read =
            list ? read_value_list("/tmp/list", *values, 4, 8) : read_parameter("/tmp/list", *values, 4, 8, 1);
        require(read >= 0 && read <= 4 && std::all_of(std::begin(values), std::end(values), isText<8>));
    }
}

#define TARGET(name) std::make_pair(#name, name)
const std::map<std::string, void (*)(std::string input)> kTargets = {
    TARGET(configuration), TARGET(connection), TARGET(discovery), TARGET(image),   TARGET(listener),
    TARGET(plan),          TARGET(pool),       TARGET(record),    TARGET(replies), TARGET(requests),
    TARGET(results),       TARGET(session),    TARGET(texts)};

// Resets the board before a run.
void reset() {
    prctl(PR_SET_NAME, "telnetd");  // the process that shows the daemon that the board has booted
    memset(segment, 0, kConfigurationSize);
    constexpr char kEmptyBlock[kProductBlockSize] = {};
    getProduct(nullptr, kEmptyBlock, nullptr);
    pingFlag = 0;
    factoryResetFlag = 0;
    printed.clear();
    logged.clear();
    answered.clear();
    put(kDebugSwitch, "");  // makes the daemon read the output of commands
    put("/tmp/busybox", "");
    for (const char *staged : {"/tmp/kernel.img", "/tmp/rootfs.img", "/tmp/firmware.img"}) unlink(staged);
    if (fs::create_directories("/tmp/dev")) fs::create_symlink("/flash/mtd2", "/tmp/dev/mtd2");
    for (const char *flash : {"/flash/mtd2", "/flash/mtd6"}) require(truncate(flash, 1 << 16) == 0);
}

}  // namespace

extern "C" {

// Formats the message, and thereby reads every argument to its end.
void syslog(int, const char *format, ...) {
    static char text[8192];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const std::string message = text, begin = "====== send pkbuf=", end = " ======\n";
    if (message.starts_with(begin))
        logged.push_back(message.substr(begin.size(), message.size() - begin.size() - end.size()));
}

// Closing a packet socket takes long, and its calls are replaced anyway.
int socket(int family, int type, int protocol) noexcept {
    return family == AF_PACKET ? dup(STDERR_FILENO) : static_cast<int>(syscall(SYS_socket, family, type, protocol));
}

int connect(int descriptor, const sockaddr *, socklen_t) { return dup2(connected, descriptor) < 0 ? -1 : 0; }

int select(int, fd_set *, fd_set *, fd_set *, timeval *) { return 1; }

ssize_t recvfrom(int, void *data, size_t size, int, sockaddr *, socklen_t *) {
    const std::string frame = arriving.back();
    arriving.pop_back();
    return static_cast<ssize_t>(frame.copy(static_cast<char *>(data), size));
}

ssize_t sendto(int, const void *data, size_t size, int, const sockaddr *, socklen_t) {
    answered.emplace_back(static_cast<const char *>(data), size);
    return static_cast<ssize_t>(size);
}

int system(const char *line) { return strlen(line) > 0 ? 0 : -1; }

FILE *popen(const char *line, const char *mode) {
    return system(line) == 0 ? fmemopen(printed.data(), printed.size(), mode) : nullptr;
}

int pclose(FILE *stream) { return fclose(stream); }

// Plays the process that answers a factory reset.
unsigned sleep(unsigned) {
    factoryResetFlag = factoryResetFlag == 1 ? 2 : 0;
    return 0;
}

void *shmat(int, const void *, int) noexcept { return segment; }
}

#if defined(LIBFUZZER)
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const auto target = kTargets.at(getenv("TARGET"));
    reset();
    target(std::string(data, data + size));
    return 0;
}
#else
int main(int argc, char **argv) {
    const long mutations = argc > 1 ? atol(argv[1]) : 100;
    std::mt19937 random(1);
    for (const auto &[name, target] : kTargets) {
        for (const auto &entry : fs::directory_iterator("/src/tests/fuzz/corpus/" + name)) {
            const std::string input = get(entry.path());
            for (long i = 0; i < mutations; ++i) {
                std::string mutated = input;
                for (long change = 0; change < i % 5; ++change) {
                    const size_t at = random() % (mutated.size() + 1), length = random() % 4;
                    const std::string bytes = random() % 2 == 0 ? std::string(length, static_cast<char>(random()))
                                                                : mutated.substr(random() % (at + 1), 40);
                    mutated.replace(at, random() % 4, bytes);
                }
                reset();
                target(mutated);
            }
        }
    }
}
#endif
