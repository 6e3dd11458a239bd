// On this machine: a look into the configuration table against what one would use instead, and how many sessions a
// second one station completes. Run it in an IPC namespace of its own: the table is a shared memory segment.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>

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

// The table and a file of the same settings.
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

// A board that answers at once, so that it is the station that is measured.
void serveAsBoard(uint16_t port, int commands) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const station::Socket board(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(board.descriptor(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) return;
    char frame[station::kFrame];
    while (commands-- > 0 && recv(board.descriptor(), frame, sizeof frame, MSG_WAITALL) == sizeof frame) {
        memset(frame, 0, sizeof frame);
        memcpy(frame, "OK", 2);
        if (send(board.descriptor(), frame, sizeof frame, MSG_NOSIGNAL) < 0) return;
    }
}

class Nobody : public station::Operator {
    std::string ask(const station::RunRecord &, size_t, const std::string &, const std::string &,
                    station::Clock::time_point, const station::Stop &) override {
        return {};
    }
};

// Sessions of ten commands on so many boards at once.
void sessions(benchmark::State &state) {
    constexpr int kCommands = 10;
    const int boards = static_cast<int>(state.range(0));
    const auto job = std::make_shared<station::Job>();
    station::Step step;
    step.send = "PING";
    step.expected.text = "OK";
    job->plan.probe = false;
    job->plan.steps.assign(kCommands, step);
    std::vector<station::Place> places;
    for (int i = 1; i <= boards; ++i) places.push_back({i, std::to_string(i)});
    station::Listener listener("127.0.0.1", 0);
    station::Observer silent;
    station::Records none;
    const station::Stop stop;
    Nobody nobody;
    while (state.KeepRunning()) {
        std::vector<std::thread> threads;
        threads.reserve(static_cast<size_t>(boards));
        for (int i = 0; i < boards; ++i) threads.emplace_back(serveAsBoard, listener.port(), kCommands);
        station::Line line(listener, places, false, job, {silent, none, stop, nobody});
        const station::Outcome outcome = line.run(boards, station::Milliseconds(10000));
        if (outcome.runs != boards || outcome.failed > 0) state.SkipWithError("a session failed");
        for (std::thread &thread : threads) thread.join();
    }
    state.SetItemsProcessed(state.iterations() * boards);
}
BENCHMARK(sessions)->Arg(1)->Arg(16)->Arg(64)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
