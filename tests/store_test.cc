// The store on both of its databases. PostgreSQL is Debian's, in a folder and on a socket of its own.

#include "station/store/store_records.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <glob.h>
#include <gmock/gmock.h>
#include <pwd.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "station/store/pool.h"
#include "station/store/queries.h"

namespace station {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

std::string serverFolder() {
    glob_t found{};
    const bool there = ::glob("/usr/lib/postgresql/*/bin", 0, nullptr, &found) == 0;
    const std::string folder = there ? found.gl_pathv[found.gl_pathc - 1] : "";
    ::globfree(&found);
    return folder;
}

pid_t start(const std::string &command) {
    const pid_t child = ::fork();
    if (child == 0) ::execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
    return child;
}

// A database that can be stopped, and a folder for it that is gone with it.
class Store : public testing::TestWithParam<const char *> {
protected:
    void SetUp() override {
        std::string name = "/tmp/store-XXXXXX";
        folder_ = ::mkdtemp(name.data());
        shared_ = std::string(GetParam()) == "PostgreSQL";
        if (!shared_) return void(store_ = folder_ / "line.db");
        if (serverFolder().empty()) GTEST_SKIP() << "there is no PostgreSQL: apt-get install postgresql";
        const passwd *const user = ::getpwnam("postgres");
        const bool root = ::getuid() == 0 && user && ::chown(folder_.c_str(), user->pw_uid, user->pw_gid) == 0;
        as_ = root ? "setpriv --reuid postgres --regid postgres --clear-groups " : "";
        store_ = fmt::format("postgresql:///postgres?host={}&user=station", folder_.string());
        const std::string make = fmt::format("{}{}/initdb -D {}/data -A trust -U station -E UTF8 --no-sync > /dev/null",
                                             as_, serverFolder(), folder_.string());
        ASSERT_EQ(::system(make.c_str()), 0);
        comeBack();
    }
    void TearDown() override {
        if (shared_ && server_) goAway();
        fs::remove_all(folder_);
    }

    // Of SQLite, a stranger takes the file for himself.
    void goAway() {
        if (!shared_) {
            stranger_ = std::make_unique<Database>(store_);
            stranger_->run("BEGIN EXCLUSIVE");
            return;
        }
        ::kill(server_, SIGINT);
        ::waitpid(server_, nullptr, 0);
        server_ = 0;
    }
    void comeBack() {
        stranger_.reset();
        if (!shared_) return;
        server_ = start(fmt::format("{0}{1}/postgres -D {2}/data -k {2} -c listen_addresses= > {2}/log 2>&1", as_,
                                    serverFolder(), folder_.string()));
        for (int i = 0; i < 300; ++i) try {
                return void(Database(store_));
            } catch (const StoreError &) {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
        FAIL() << "PostgreSQL does not start: " << folder_ / "log";
    }

    std::unique_ptr<StoreRecords> station() {
        return std::make_unique<StoreRecords>(store_, folder_ / "spool",
                                              [this](const std::string &text) { said_ = text; });
    }

    fs::path folder_;
    std::string store_, as_, said_;
    bool shared_ = false;
    pid_t server_ = 0;
    std::unique_ptr<Database> stranger_;
};
INSTANTIATE_TEST_SUITE_P(, Store, testing::Values("SQLite", "PostgreSQL"),
                         [](const auto &store) { return store.param; });

RunRecord runOf(const std::string &serial, const std::string &plan = "line") {
    RunRecord run;
    run.start = run.end = WallClock::now();
    run.id = makeRunId(run.start);
    run.plan = plan;
    run.place = {3, "left"};
    run.unit = serial;
    run.steps.resize(2);
    run.steps[0].title = "PING";
    run.steps[1].title = "MAC {mac}";
    return run;
}

void endStep(Records &records, RunRecord &run, size_t step, Verdict verdict, std::vector<Measurement> found = {}) {
    run.steps[step].verdict = verdict;
    run.steps[step].reply = std::string("no \xFF text\0", 10);
    run.steps[step].measurements = std::move(found);
    records.stepEnded(run, step);
}

std::string refusal(const std::function<void()> &call) {
    try {
        call();
        return "nothing refused";
    } catch (const std::runtime_error &error) {
        return error.what();
    }
}

std::vector<std::string> cells(const Table &table, size_t row) {
    std::vector<std::string> texts;
    for (const Value &cell : table.rows.at(row)) {
        texts.push_back(cell.value_or("-"));  // where one database says 50, the other may say 50.0
        if (texts.back().ends_with(".0")) texts.back().resize(texts.back().size() - 2);
    }
    return texts;
}

TEST_P(Store, GivesEveryUnitABlockOfItsOwn) {
    Database database(store_);
    addRange(database, "mac", "02:00:00:00:00:FA", "02-00-00-00-01-07", 4);
    const struct {
        const char *first, *last, *why;
    } wrong[] = {{"02:00:00:00:00:00", "02:00:00:00:00:fa", "overlaps 02:00:00:00:00:FA to 02:00:00:00:01:07 of"},
                 {"010000000000", "010000000001", "is a multicast address"},
                 {"FF:FF:FF:FF:FF:FF", "FF:FF:FF:FF:FF:FF", "is a multicast address"},
                 {"00:FF:00:00:00:00", "02:00:00:00:00:00", "first byte must be one and the same"},
                 {"00:00:00:00:00:00", "00:00:00:00:00:01", "is no board's address"},
                 {"04:00:00:00:00:01", "04:00:00:00:00:00", "above the last"},
                 {"04:00:00:00:00:0", "04:00:00:00:00:01", "is no MAC address"}};
    for (const auto &[first, last, why] : wrong) {
        EXPECT_THAT(refusal([&] { addRange(database, "b", first, last, -1); }), HasSubstr(why));
    }
    std::ofstream(folder_ / "keys.csv") << "# keys\n\"a,b\"\nc\n";
    EXPECT_EQ(importRows(database, "key", folder_ / "keys.csv", -1), 2);
    EXPECT_THAT(refusal([&] { importRows(database, "key", folder_ / "keys.csv", -1); }),
                HasSubstr("keys.csv:2: \"a,b\" is"));

    const auto records = station();
    const auto given = [&](const char *serial, const char *pool, int count) {
        const RunRecord run = runOf(serial);
        records->begins(run);
        return records->bind(pool, run, count);
    };
    // No block goes over the sixth byte's carry; what is left before it serves smaller boards.
    EXPECT_THAT(given("A", "mac", 4),
                ElementsAre("02:00:00:00:00:FA", "02:00:00:00:00:FB", "02:00:00:00:00:FC", "02:00:00:00:00:FD"));
    EXPECT_EQ(given("B", "mac", 4).front(), "02:00:00:00:01:00");
    EXPECT_EQ(given("C", "mac", 2).front(), "02:00:00:00:00:FE");
    EXPECT_EQ(given("A", "mac", 4).back(), "02:00:00:00:00:FD");
    EXPECT_EQ(said_, "");
    EXPECT_EQ(given("D", "mac", 2).front(), "02:00:00:00:01:04");
    EXPECT_THAT(said_, HasSubstr("\"mac\" runs low: 2 left"));
    EXPECT_THAT(refusal([&] { given("E", "mac", 4); }), HasSubstr("is empty of blocks of 4"));
    EXPECT_THAT(refusal([&] { given("C", "mac", 4); }), HasSubstr("has 2 of the pool \"mac\" from before"));
    EXPECT_EQ(retire(database, "mac", "02:00:00:00:01:07"), 2);
    EXPECT_THAT(refusal([&] { given("E", "mac", 1); }), HasSubstr("is empty"));
    EXPECT_THAT(given("E", "key", 1), ElementsAre("a,b"));
    EXPECT_THAT(refusal([&] { given("", "key", 1); }), HasSubstr("serial is not known"));
    EXPECT_THAT(refusal([&] { given("E", "none", 1); }), HasSubstr("qcstation pool add none"));
    EXPECT_EQ(show(database, "020000000105")[0].table.rows.size(), 1);
}

TEST_P(Store, RecordsRunsAndAnswers) {
    const auto run = [](Records &records, const char *serial, std::vector<Verdict> verdicts, double volts,
                        int seconds) {
        RunRecord record = runOf(serial);
        records.begins(record);
        for (size_t i = 0; i < verdicts.size(); ++i)
            endStep(records, record, i, verdicts[i], {{"volts", volts, 1, 3, "V", true}});
        record.end += std::chrono::seconds(seconds);
        records.ends(record);
        return record.id;
    };
    const auto kPass = Verdict::kPassed, kFail = Verdict::kFailed, kNot = Verdict::kNotRun;
    std::string first, cut;
    {
        const auto records = station();
        first = run(*records, "A", {kPass, kFail}, 2.1, 10);
        run(*records, "A", {kPass, kPass}, 2.2, 20);
        run(*records, "B", {kFail, kNot}, 1.9, 30);
        run(*records, "C", {kPass, kPass}, 1.8, 40);
        run(*records, "", {kPass, kPass}, 2.0, 50);
        const RunRecord lost = runOf("B");
        records->begins(lost);
        cut = lost.id;
    }
    Database database(store_);
    EXPECT_EQ(show(database, cut)[0].table.rows[0][7], "running");
    station();  // the next process finds what the last one left
    EXPECT_EQ(show(database, "B")[0].table.rows[0][4], "interrupted");
    EXPECT_THAT(cells(show(database, first)[0].table, 0),
                ElementsAre(first, "A", "line", testing::_, "left", testing::_, "10", "failed", "1", "MAC {mac}", "-"));
    EXPECT_THAT(cells(show(database, first)[1].table, 1), testing::Contains("no \uFFFD text\uFFFD"));
    EXPECT_EQ(show(database, "A")[2].table.rows.size(), 2);
    EXPECT_THAT(cells(yields(database, {}, By::kAll), 0),
                ElementsAre("all", "4", "5", "50", "75", "1", "1", "30", "50"));
    EXPECT_EQ(yields(database, {"", "2020"}, By::kHour).rows.size(), 0);
    EXPECT_THAT(cells(failuresByStep(database, {}), 1), ElementsAre("PING", "1", "50", "100"));
    const std::vector<std::string> volts = cells(measuredValues(database, {}), 0);
    EXPECT_THAT(volts, testing::IsSupersetOf({"line", "volts", "V", "1.8", "2.2", "1", "3"}));
    EXPECT_NEAR(std::stod(volts.back()), 2.3, 0.1);
    EXPECT_EQ(listRuns(database, {.period = {}, .failed = true, .limit = 1}).rows.size(), 1);
    database.run("INSERT INTO schema_version (version) VALUES (99)");
    EXPECT_THAT(station()->away(), HasSubstr("newer version"));
}

TEST_P(Store, KeepsWhatABoardInWorkStillDoesWhileTheStoreIsAway) {
    addRange(*std::make_unique<Database>(store_), "mac", "02:00:00:00:00:00", "02:00:00:00:FF:FF", -1);
    auto records = station();
    RunRecord inWork = runOf("A"), later = runOf("B");
    records->begins(inWork);
    goAway();
    EXPECT_THAT(refusal([&] { records->begins(later); }), HasSubstr("the store "));
    EXPECT_THAT(records->away(), HasSubstr("the store "));
    EXPECT_THAT(refusal([&] { records->bind("mac", inWork, 4); }), HasSubstr("the store "));
    endStep(*records, inWork, 0, Verdict::kPassed);
    endStep(*records, inWork, 1, Verdict::kPassed);
    records->ends(inWork);
    records.reset();  // the station ends as well; another process finds what it kept
    comeBack();
    records = station();
    EXPECT_EQ(records->away(), "");
    records->begins(later);
    Database database(store_);
    EXPECT_EQ(show(database, inWork.id)[0].table.rows[0][7], "passed");
    EXPECT_EQ(show(database, inWork.id)[1].table.rows.size(), 2);
    EXPECT_EQ(database.ask("SELECT count(*) FROM addresses").rows[0][0], "0");
}

// One process of a line: its boards write down what they were sent and told, each a line at once.
[[noreturn]] void runStation(const std::string &store, const fs::path &folder, int boards, int rounds) {
    const int account = ::open((folder / "account").c_str(), O_WRONLY | O_APPEND | O_CREAT, 0644);
    const auto note = [&](const std::string &line) { (void)!::write(account, line.data(), line.size()); };
    StoreRecords records(store, folder / "spool", [](const std::string &) {});
    std::vector<std::jthread> all;
    for (int board = 0; board < boards; ++board) {
        all.emplace_back([&] {
            std::mt19937 random{std::random_device()()};
            for (int i = 0; i < rounds; ++i) try {
                    RunRecord run = runOf(fmt::format("S{}", random() % 500));
                    records.begins(run);
                    note(fmt::format("begun {} -\n", run.id));
                    note(fmt::format("sent {} {}\n", run.unit, records.bind("mac", run, 4).front()));
                    endStep(records, run, 0, Verdict::kPassed);
                    endStep(records, run, 1, Verdict::kPassed);
                    records.ends(run);
                    note(fmt::format("ended {} -\n", run.id));
                } catch (const RecordsError &) {  // it tries again in a moment
                    std::this_thread::sleep_for(std::chrono::milliseconds(50));
                }
        });
    }
    all.clear();
    std::_Exit(0);
}

int setting(const char *name, int usual) { return std::getenv(name) ? std::atoi(std::getenv(name)) : usual; }

TEST_P(Store, GivesNothingTwiceAndLosesNothingWhenStationsAreKilled) {
    const int stations = setting("STORE_STATIONS", 3), boards = setting("STORE_BOARDS", 8);
    const int kills = setting("STORE_KILLS", 12), stops = setting("STORE_STOPS", 2);
    addRange(*std::make_unique<Database>(store_), "mac", "02:00:00:00:00:02", "02:00:00:00:FF:FF", -1);
    std::vector<pid_t> processes(size_t(stations), 0);
    const auto begin = [&](pid_t &process, int rounds) {
        process = ::fork();
        if (process == 0) runStation(store_, folder_, boards, rounds);
    };
    for (pid_t &process : processes) begin(process, INT_MAX);
    std::mt19937 random{7};
    for (int i = 0; i < kills; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 400));
        if (stops && i % (kills / stops) == 1) goAway();
        pid_t &process = processes[random() % processes.size()];
        ::kill(process, SIGKILL);
        ::waitpid(process, nullptr, 0);
        begin(process, INT_MAX);
        if (stops && i % (kills / stops) == 2) comeBack();
    }
    for (pid_t &process : processes) {
        ::kill(process, SIGKILL);
        ::waitpid(process, nullptr, 0);
        begin(process, 20);  // and one that ends well
        ::waitpid(process, nullptr, 0);
    }
    EXPECT_EQ(station()->away(), "");  // finds what the last ones left, if anything

    Database database(store_);
    std::map<std::string, std::string> verdicts, owners, sent;
    for (const auto &row : database.ask("SELECT run, verdict FROM runs").rows) verdicts[*row[0]] = *row[1];
    for (const auto &row : database.ask("SELECT address, serial FROM addresses").rows) owners[*row[0]] = *row[1];
    std::map<std::string, int> lines;
    std::ifstream account(folder_ / "account");
    for (std::string what, key, value; account >> what >> key >> value; ++lines[what]) {
        const bool known = what == "begun"   ? verdicts[key] == "passed" || verdicts[key] == "interrupted"
                           : what == "ended" ? verdicts[key] == "passed"
                                             : owners[value] == key && sent.emplace(key, value).first->second == value;
        ASSERT_TRUE(known) << what << " " << key << " " << value << ": " << verdicts[key] << owners[value];
    }
    EXPECT_EQ(database
                  .ask("SELECT count(*) FROM runs r WHERE verdict = 'passed' AND 2 <>"
                       " (SELECT count(*) FROM steps s WHERE s.run = r.id)")
                  .rows[0][0],
              "0");
    EXPECT_GT(lines["ended"], 20 * stations);
    fmt::print("{} begun, {} sent, {} ended\n", lines["begun"], lines["sent"], lines["ended"]);
}

}  // namespace
}  // namespace station
