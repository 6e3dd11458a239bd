// Measures a store that holds a million runs: queries, and recording boards.
// usage: store_bench STORE [RUNS]                          STORE is empty, or was filled by this program
//        store_bench STORE STATIONS PLACES ROUNDS SECONDS  only how long boards wait for addresses, when so many
//                                                          stations with so many places each run so many sessions

#include <arpa/inet.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "station/line/line.h"
#include "station/store/pool.h"
#include "station/store/queries.h"
#include "station/store/store_records.h"

namespace station {
namespace {

constexpr int kRunsADay = 27000;

// From 2026-01-01 on; three steps and two values a run; each tenth unit is tested twice, each twentieth run fails.
void fill(Database &database, int runs) {
    const std::string counted =
        "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i + 1 < CAST($1 AS BIGINT)) ";
    const auto two = [](const std::string &value) {
        return fmt::format("substr(CAST(100 + {} AS TEXT), 2, 2)", value);
    };
    const auto timeOf = [&](const char *run) {
        const std::string second = fmt::format("1767225600 + {} * {}", run, 86400.0 / kRunsADay);
        return database.shared() ? fmt::format("to_timestamp({})", second)
                                 : fmt::format("strftime('%Y-%m-%dT%H:%M:%S.000Z', {}, 'unixepoch')", second);
    };
    const std::string started = timeOf("i");
    // NOLINTBEGIN(bugprone-suspicious-missing-comma): literals that belong together
    const std::vector<std::string> parts = {
        "INSERT INTO units (id, serial, first_seen, last_seen) SELECT i + 1, 'U' || i, " + started + ", " + started +
            " FROM n",
        "INSERT INTO runs (id, run, unit, plan, station, place, place_name, started, ended, seconds, verdict, attempt,"
        " superseded, failed_step, variables) SELECT i + 1, 'R' || i, i - i % 10 / 9 + 1, 'line', 1, i % 16, 'place ' "
        "|| (i % "
        "16), " +
            started + ", " + started +
            ", 60 + i * 79 % 4000 / 100.0, CASE i % 20 WHEN 0 THEN 'failed' ELSE 'passed' END,"
            " 1 + i % 10 / 9, i % 10 = 8, CASE i % 20 WHEN 0 THEN 'step ' || (i % 7) END, '{}' FROM n",
        "INSERT INTO steps (run, step, title, verdict, reply, cut, started_after, seconds, attempts)"
        " SELECT i / 3 + 1, i % 3 + 1, 'step ' || (i % 3), 'passed', 'OK', 0, i % 3, 1, 1 FROM n",
        "INSERT INTO measurements (run, step, name, value, minimum, maximum, unit, verdict, plan, started, station,"
        " place_name) SELECT i / 2 + 1, 1, 'volts ' || (i % 2), 2 + i % 101 / 200.0, 1, 3, 'V', 'passed', 'line', " +
            timeOf("(i / 2)") + ", 1, 'place ' || (i / 2 % 16) FROM n",
        "INSERT INTO pool_rows (pool, value, number, unit, run, bound, retired) SELECT 1, '02:00:' || " +
            two("i / 1000000 % 100") + " || ':' || " + two("i / 10000 % 100") + " || ':' || " + two("i / 100 % 100") +
            " || ':' || " + two("i % 100") + ", i, i + 1, 'R' || i, " + started + ", FALSE FROM n"};
    // NOLINTEND(bugprone-suspicious-missing-comma)
    const int rows[] = {runs, runs, 3 * runs, 2 * runs, runs};
    database.run("INSERT INTO stations (id, name, key, seen) VALUES (1, 'bench', 'bench', '2026-01-01')");
    database.run("INSERT INTO pools (id, name, kind, low) VALUES (1, 'old', 'addresses', 0)");
    database.transact([&] {
        for (size_t i = 0; i < parts.size(); ++i) {
            const std::string &sql = parts[i];
            database.run(sql.substr(0, sql.find(" SELECT ")) + " " + counted + sql.substr(sql.find(" SELECT ") + 1),
                         {number(rows[i])});
        }
    });
    for (const char *const table : {"stations", "units", "runs", "pools", "pool_rows"}) {
        if (!database.shared()) break;  // PostgreSQL's own counter does not notice keys that were given
        database.run(fmt::format("ALTER TABLE {} ALTER COLUMN id RESTART WITH 100000000", table));
    }
    database.run("ANALYZE");
}

// Prints the milliseconds of the quickest of five runs, the one that the machine disturbed least; and the least time
// that this process had the processor, which on SQLite is all the work, whatever else the machine does.
void report(const std::string &name, const std::function<void()> &call) {
    std::vector<double> times, worked;
    for (int i = 0; i < 5; ++i) {
        const auto start = std::chrono::steady_clock::now();
        const std::clock_t before = std::clock();
        call();
        worked.push_back(1000.0 * double(std::clock() - before) / CLOCKS_PER_SEC);
        times.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
    }
    fmt::print("{:40} {:9.2f} ms, processor {:9.2f} ms\n", name, *std::min_element(times.begin(), times.end()),
               *std::min_element(worked.begin(), worked.end()));
    std::fflush(stdout);
}

constexpr int kBoards = 64;
constexpr int kSteps = 10;

// How long boards waited for their addresses.
class Waits {
public:
    void add(double milliseconds) {
        const Lock lock(mutex_);
        waits_.push_back(milliseconds);
    }
    void fail(const std::string &why) {
        const Lock lock(mutex_);
        if (failed_++ == 0) fmt::print("{}\n", why);
    }
    void print(double seconds) {
        const Lock lock(mutex_);
        std::ranges::sort(waits_);
        fmt::print("{} boards in {:.1f} s, {} failed", waits_.size(), seconds, failed_);
        for (const int percent : {50, 90, 99, 100}) {
            if (!waits_.empty())
                fmt::print(", {} %: {:.1f} ms", percent, waits_[(waits_.size() - 1) * size_t(percent) / 100]);
        }
        fmt::print("\n");
    }

private:
    Mutex mutex_;
    std::vector<double> waits_ GUARDED_BY(mutex_);
    int failed_ GUARDED_BY(mutex_) = 0;
};

// Records one board: its run, four addresses, ten steps that take so long each, the verdict. Returns how many
// milliseconds it waited for the addresses.
double record(Records &records, int board, Milliseconds step = {}) {
    RunRecord run;
    run.start = run.end = WallClock::now();
    run.id = makeRunId(run.start);
    run.plan = "bench";
    run.place = {board, "bench"};
    run.unit = run.id;
    run.steps.resize(kSteps);
    for (StepResult &each : run.steps) each.title = "PING", each.verdict = Verdict::kPassed;
    records.begins(run);
    const auto asked = Clock::now();
    records.bind("bench", run, 4);
    const auto waited = Clock::now() - asked;
    for (size_t i = 0; i < run.steps.size(); ++i) {
        std::this_thread::sleep_for(step);
        records.stepEnded(run, i);
    }
    records.ends(run);
    return std::chrono::duration<double, std::milli>(waited).count();
}

void recordBoards(Records &records, int boards) {
    std::vector<std::jthread> all;
    all.reserve(size_t(boards));
    for (int i = 1; i <= boards; ++i) all.emplace_back([&records, i] { record(records, i); });
}

// Works at one place. Adds the waits for addresses, and counts boards that failed.
void workAtPlace(StoreRecords &records, int place, int rounds, Milliseconds session, Waits &waits) {
    std::this_thread::sleep_for(session * (place % 97) / 97);  // boards do not come all at once
    for (int i = 0; i < rounds; ++i) try {
            waits.add(record(records, place, session / kSteps));
        } catch (const RecordsError &error) {
            waits.fail(error.what());
        }
}

void workAtStations(const std::string &store, int stations, int places, int rounds, Milliseconds session) {
    const auto folder = std::filesystem::temp_directory_path() / fmt::format("store_bench-{}", ::getpid());
    std::vector<std::unique_ptr<StoreRecords>> all;
    for (int i = 0; i < stations; ++i) {
        all.push_back(std::make_unique<StoreRecords>(store, folder / std::to_string(i), nullptr));
        if (const std::string why = all.back()->away(); !why.empty()) throw StoreAway(why);
    }
    Waits waits;
    const auto start = Clock::now();
    {
        std::vector<std::jthread> threads;
        threads.reserve(size_t(stations) * size_t(places));
        for (int i = 0; i < stations * places; ++i) {
            threads.emplace_back([&, i] { workAtPlace(*all[size_t(i % stations)], i, rounds, session, waits); });
        }
    }
    waits.print(std::chrono::duration<double>(Clock::now() - start).count());
    all.clear();
    std::filesystem::remove_all(folder);
}

constexpr int kCommands = 12;  // per session

// Plays a board with a serial number of its own, which takes so long for each command.
void serveAsBoard(uint16_t port, const std::string &serial, Milliseconds command) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const Socket board(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(board.descriptor(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) return;
    const std::map<char, std::string> replies = {{'I', "INFO " + serial}, {'M', "MAC 4"}, {'P', "PING 2"}};
    std::string frame(kFrame, '\0');
    while (::recv(board.descriptor(), frame.data(), kFrame, MSG_WAITALL) == ssize_t(kFrame)) {
        std::this_thread::sleep_for(command);
        frame = replies.at(frame[0]);
        frame.resize(kFrame);
        (void)::send(board.descriptor(), frame.data(), kFrame, MSG_NOSIGNAL);
    }
}

std::shared_ptr<Job> planOfSession() {
    const auto path = std::filesystem::temp_directory_path() / "store_bench.yaml";
    std::ofstream plan(path);
    plan << "probe: false\nsteps:\n- {send: INFO, match: '^INFO (?P<serial>.+)$'}\n- {send: 'MAC {bench}', expect: MAC "
            "4}\n";
    for (int i = 0; i < kCommands - 2; ++i) plan << "- {send: PING, expect: PING 2}\n";
    plan.close();
    return std::make_shared<Job>(Job{loadPlan(path, {}, {{}, {"bench"}}), {}, {}, {}});
}

struct Nobody : Operator {
    std::string ask(const RunRecord &, size_t, const std::string &, const std::string &, Clock::time_point,
                    const Needless &) override {
        return {};
    }
};

// Records nothing, and always gives the same addresses.
struct NoRecords : Records {
    std::vector<std::string> bind(const std::string &, const RunRecord &, int) override {
        return {"06:00:00:00:00:00", "06:00:00:00:00:01", "06:00:00:00:00:02", "06:00:00:00:00:03"};
    }
};

// Serves 64 boards at once. Returns how many seconds that takes.
double serveBoards(Records &records, const std::shared_ptr<Job> &job, Milliseconds command) {
    std::vector<Listener> listeners;
    listeners.emplace_back("127.0.0.1", 0);
    std::vector<Place> places;
    for (int i = 1; i <= kBoards; ++i) places.push_back({i, std::to_string(i)});
    Observer silent;
    const Stop stop;
    Nobody nobody;
    Units units;
    Line line(listeners, places, job, {silent, records, stop, nobody, units});
    const auto start = Clock::now();
    std::vector<std::jthread> boards;
    boards.reserve(kBoards);
    for (int i = 0; i < kBoards; ++i) {
        boards.emplace_back(serveAsBoard, listeners.front().port(), makeRunId(WallClock::now()), command);
    }
    const Outcome outcome = line.run(kBoards, Milliseconds(10000));
    if (outcome.failed > 0) throw std::runtime_error("a session failed");
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Prints the median of pairs of neighbouring runs, without and with the store: other work of the machine disturbs both
// of a pair alike.
void compareLines(Records &records, Milliseconds session, int pairs) {
    const auto job = planOfSession();
    NoRecords none;
    std::vector<double> with, without, ratios;
    for (int i = 0; i < pairs; ++i) {
        without.push_back(serveBoards(none, job, session / kCommands));
        with.push_back(serveBoards(records, job, session / kCommands));
        ratios.push_back(with.back() / without.back());
    }
    for (auto *const all : {&with, &without, &ratios}) std::ranges::sort(*all);
    fmt::print("{:40} {:9.2f} s, without a store {:.2f} s; pairs: median {:+.1f} %, from {:+.1f} % to {:+.1f} %\n",
               fmt::format("64 boards at once, sessions of {:.1f} s", inSeconds(session)), with[size_t(pairs) / 2],
               without[size_t(pairs) / 2], 100 * (ratios[size_t(pairs) / 2] - 1), 100 * (ratios.front() - 1),
               100 * (ratios.back() - 1));
}

void bench(const std::string &store, int runs) {
    Database database(store);
    if (database.ask("SELECT id FROM runs LIMIT 1").empty()) {
        fill(database, runs);
        addRange(database, "bench", "06:00:00:00:00:00", "06:00:00:FF:FF:FF", 0);
        if (!database.shared()) database.ask("PRAGMA wal_checkpoint(TRUNCATE)");
    }
    const auto cell = [&](const char *sql) { return database.ask(sql).rows.at(0).at(0).value_or(""); };
    const auto daysBefore = [last = parseIsoTime(cell("SELECT max(started) FROM runs WHERE plan = 'line'"))](int days) {
        return isoTime(*last - std::chrono::days(days));
    };
    const Filter day{{daysBefore(2), daysBefore(1)}}, month{{daysBefore(31), daysBefore(1)}};
    const std::string serial = cell("SELECT serial FROM units WHERE id = 123456"),
                      address = cell("SELECT value FROM pool_rows WHERE id = 123456"),
                      run = cell("SELECT run FROM runs WHERE id = 123456");
    report("show SERIAL", [&] { show(database, serial); });
    report("show ADDRESS", [&] { show(database, address); });
    report("show RUN", [&] { show(database, run); });
    report("runs --failed, the newest 100", [&] { listRuns(database, {.filter = {}, .failed = true}); });
    report("summary of a day, all three tables", [&] {
        yields(database, day, By::kAll);
        failuresByStep(database, day);
        measuredValues(database, day);
    });
    report("summary of a day --by hour", [&] { yields(database, day, By::kHour); });
    report("summary of a day --by value", [&] { measuredValues(database, day); });
    report("summary of 30 days", [&] { yields(database, month, By::kAll); });
    report("summary of 30 days --by hour", [&] { yields(database, month, By::kHour); });
    report("summary of 30 days --by step", [&] { failuresByStep(database, month); });
    report("summary of 30 days --by value", [&] { measuredValues(database, month); });
    report("summary of 30 days --by place", [&] { yields(database, month, By::kPlace); });
    report("a value of 30 days by place", [&] { spreadsByPlace(database, month, "volts 1"); });
    report("histogram of 30 days by place", [&] { histogram(database, month, "volts 1", 30); });
    report("units, the newest 100", [&] { unitsLike(database, "", 100); });
    report("units that begin with U1234", [&] { unitsLike(database, "U1234", 100); });
    report("pool list", [&] { listPools(database); });
    StoreRecords records(store, std::filesystem::temp_directory_path() / "store_bench-spool", nullptr);
    report("records of a board", [&] { record(records, 1); });
    report("records of 64 boards at once", [&] { recordBoards(records, kBoards); });
    compareLines(records, Milliseconds(1200), 15);
    compareLines(records, Milliseconds(6000), 3);  // as long as plans/production.yaml takes on the virtual board
}

}  // namespace
}  // namespace station

int main(int argc, char **argv) try {
    if (argc < 2) throw std::runtime_error("usage: store_bench STORE [RUNS | STATIONS PLACES ROUNDS SECONDS]");
    const auto number = [&](int at) { return std::stoi(argv[at]); };
    if (argc > 5) {
        station::workAtStations(argv[1], number(2), number(3), number(4), std::chrono::seconds(number(5)));
    } else {
        station::bench(argv[1], argc > 2 ? number(2) : 1'000'000);
    }
} catch (const std::exception &error) {
    fmt::print(stderr, "{}\n", error.what());
    return 1;
}
