// Measures on this machine: a look-up in the configuration table beside the usual ways, and how many sessions a station
// completes per second. Run it in an IPC namespace of its own: the table is a shared memory segment.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "station/line/line.h"
#include "support/configuration.h"

namespace {

constexpr int kRecords = 120;
constexpr char kSettingsFile[] = "/tmp/fabtestd-bench.config";

std::string keyOf(int record) { return "SETTING_" + std::to_string(record); }

// Holds the table, and a file with the same settings.
void makeSettings() {
    if (get_configuration() == nullptr) throw std::runtime_error("no shared memory");
    std::ofstream file(kSettingsFile);
    for (int i = 0; i < kRecords; ++i) {
        add_configuration(keyOf(i).c_str(), "value");
        file << keyOf(i) << " = \"value\"\n";
    }
}

void lookUp(benchmark::State &state) {
    makeSettings();
    int i = 0;
    while (state.KeepRunning()) {
        if (RETURN_DEF_STR(keyOf(i++ % kRecords).c_str()) == nullptr) state.SkipWithError("not found");
    }
}
BENCHMARK(lookUp);

void scanTheTable(benchmark::State &state) {
    makeSettings();
    const ConfigurationSegment *const segment = get_configuration();
    int i = 0;
    while (state.KeepRunning()) {
        const std::string key = keyOf(i++ % kRecords);
        const ConfigurationRecord *record = segment->table;
        while (record < segment->table + segment->count && strcmp(record->key, key.c_str()) != 0) ++record;
        benchmark::DoNotOptimize(record);
    }
}
BENCHMARK(scanTheTable);

void grepTheFile(benchmark::State &state) {
    makeSettings();
    int i = 0;
    while (state.KeepRunning()) {
        const std::string line = "grep '^" + keyOf(i++ % kRecords) + " ' " + kSettingsFile;
        FILE *const output = popen(line.c_str(), "r");
        char text[256];
        if (output == nullptr || fgets(text, sizeof text, output) == nullptr) state.SkipWithError("not found");
        if (output != nullptr) pclose(output);
    }
}
BENCHMARK(grepTheFile)->UseRealTime();

// Receives and discards so many bytes.
bool takePayload(int board, size_t bytes) {
    std::vector<char> part(size_t{1} << 18);
    while (bytes > 0) {
        const ssize_t received = recv(board, part.data(), std::min(part.size(), bytes), 0);
        if (received <= 0) return false;
        bytes -= static_cast<size_t>(received);
    }
    return true;
}

// A board that answers at once, so that only the station is measured. Each command is followed by a payload.
void serveAsBoard(uint16_t port, int commands, size_t payload) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const station::Socket board(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(board.descriptor(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) return;
    char frame[station::kFrame];
    while (commands-- > 0 && recv(board.descriptor(), frame, sizeof frame, MSG_WAITALL) == sizeof frame &&
           takePayload(board.descriptor(), payload)) {
        memset(frame, 0, sizeof frame);
        memcpy(frame, "OK", 2);
        if (send(board.descriptor(), frame, sizeof frame, MSG_NOSIGNAL) < 0) return;
    }
}

class Nobody : public station::Operator {
    std::string ask(const station::RunRecord &, size_t, const std::string &, const std::string &,
                    station::Clock::time_point, const station::Needless &) override {
        return {};
    }
};

// Measures sessions of so many steps on so many boards at once, through the whole line.
void runLine(benchmark::State &state, int boards, const station::Step &step, int steps) {
    const auto job = std::make_shared<station::Job>();
    job->plan.probe = false;
    job->plan.steps.assign(static_cast<size_t>(steps), step);
    const size_t payload = step.file ? step.file->bytes->size() : 0;
    std::vector<station::Place> places;
    for (int i = 1; i <= boards; ++i) places.push_back({i, std::to_string(i)});
    station::Observer silent;
    station::Records none;
    const station::Stop stop;
    Nobody nobody;
    station::Units units;
    while (state.KeepRunning()) {
        std::vector<station::Listener> listeners;
        listeners.emplace_back("127.0.0.1", 0);
        std::vector<std::thread> threads;
        threads.reserve(static_cast<size_t>(boards));
        for (int i = 0; i < boards; ++i) threads.emplace_back(serveAsBoard, listeners.front().port(), steps, payload);
        station::Line line(listeners, places, job, {silent, none, stop, nobody, units});
        const station::Outcome outcome = line.run(boards, station::Milliseconds(10000));
        if (outcome.runs != boards || outcome.failed > 0) state.SkipWithError("a session failed");
        for (std::thread &thread : threads) thread.join();
    }
    state.SetItemsProcessed(state.iterations() * boards);
    state.SetBytesProcessed(state.iterations() * boards * static_cast<int64_t>(payload));
}

station::Step stepOf(const std::string &command) {
    station::Step step;
    step.send = command;
    step.expected.text = "OK";
    return step;
}

void sessions(benchmark::State &state) { runLine(state, static_cast<int>(state.range(0)), stepOf("PING"), 10); }
BENCHMARK(sessions)->Arg(1)->Arg(16)->Arg(64)->Arg(1000)->UseRealTime()->Unit(benchmark::kMillisecond);

// For comparison, in the same run, scripts/bench lets iperf3 send as much over as many connections.
void uploads(benchmark::State &state) {
    const auto bytes = std::make_shared<const std::string>(size_t{8} << 20, 'k');
    station::Step step = stepOf("FW KERNEL 8388608");
    step.timeout = std::chrono::seconds(60);
    step.file = station::Payload{"kernel.bin", bytes, {}, {}};
    runLine(state, static_cast<int>(state.range(0)), step, 1);
}
BENCHMARK(uploads)->Arg(64)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
