// Records of runs on their way: as JSON, in the spool, in result files, and in a store that comes and goes.

#include <zlib.h>

#include <atomic>
#include <nlohmann/json.hpp>
#include <set>

#include "station/run/record_json.h"
#include "station/store/archive.h"
#include "station/store/load.h"
#include "station/store/pool.h"
#include "station/store/queries.h"
#include "station/store/save.h"
#include "tests/store_fixture.h"

namespace station {
namespace {

using testing::AllOf, testing::ElementsAre, testing::HasSubstr;

TEST(Record, IsReadBackAsItWasWritten) {
    const RunRecord run = fullRun(), again = parseRecord(dump(run));
    EXPECT_EQ(dump(again, 2), dump(run, 2));
    EXPECT_EQ(again.steps[0].duration, run.steps[0].duration);
    EXPECT_EQ(again.end, run.end);
    EXPECT_FALSE(parseRecord(dump(unfinished(run))).ended());
    EXPECT_FALSE(unfinished(runOf("A")).passed());
    const std::string text = dump(run);
    for (size_t size = 0; size < text.size(); ++size)
        EXPECT_THROW(parseRecord(text.substr(0, size)), std::runtime_error);
}

TEST(Record, RefusesNumbersThatItsFieldsDoNotHold) {
    for (const auto &[field, number] : {std::pair<const char *, Json>{"/place/number", 1.5},
                                        {"/steps/0/attempts", 6.7e32},
                                        {"/steps/0/cut", -1},
                                        {"/files/0/size", "5"},
                                        {"/steps/0/seconds", 1e300}}) {
        Json json = toJson(fullRun());
        json[Json::json_pointer(field)] = number;
        EXPECT_THROW(parseRecord(json.dump()), std::runtime_error) << field;
    }
}

std::set<std::string> kinds(const fs::path &folder) {
    std::set<std::string> kinds;
    for (const auto &entry : fs::directory_iterator(folder)) kinds.insert(entry.path().extension());
    return kinds;
}

TEST(Spool, HandsTheRecordsOfTheDeadToTheNext) {
    const Folder folder;
    std::string said;
    const auto say = [&](const std::string &text) { said += text + "\n"; };
    const RunRecord kept = fullRun(), reserved = runOf("B");
    std::string key;
    {
        Spool first(folder.path, say), living(folder.path, say);
        EXPECT_EQ(first.keys().size(), 1);
        EXPECT_NE(first.key(), living.key());
        key = first.key();
        first.reserve(kept.id);
        first.reserve(reserved.id);
        EXPECT_EQ(fs::file_size(folder.path / (key + "-" + reserved.id + ".room")), 64 << 10);
        first.keep(unfinished(kept));
        first.keep(kept);
        EXPECT_TRUE(living.kept().empty());
    }
    std::ofstream(folder.path / (key + "-torn.json")) << dump(kept).substr(0, 100);
    std::ofstream(folder.path / (key + ".spool")) << "[[\"run\",\"of an earlier version\"]]\n";
    Spool next(folder.path, say);
    EXPECT_EQ(next.keys().size(), 2);
    ASSERT_EQ(next.kept().size(), 1);
    EXPECT_THAT(said, HasSubstr("-torn.refused cannot be read and is set aside"));
    EXPECT_THAT(said, HasSubstr(key + ".spool holds runs that version 1.0"));
    EXPECT_EQ(dump(next.kept()[0]), dump(kept));
    next.forget(kept.id);
    EXPECT_TRUE(next.kept().empty());
    EXPECT_EQ(kinds(folder.path), (std::set<std::string>{".refused", ".spool"}));
    std::vector<std::string> refused, replayed;  // in the order of their starts
    for (const int second : {0, 1, 2, 3, 4, 5}) {
        RunRecord run = runOf("C");
        run.id = makeRunId(run.start + std::chrono::seconds(second));
        next.refuse(run, "");
        refused.push_back(run.id);
    }
    replay(
        folder.path, [&](const RunRecord &run) { replayed.push_back(run.id); }, say);
    EXPECT_EQ(replayed, refused);
}

// A station with results, on either database.
class Station : public Store {
protected:
    void start() {
        station_ = std::make_unique<StoreRecords>(store_, folder_ / "spool", std::make_unique<FileRecords>(results()));
        station_->tell([this](const std::string &text) { all_ += text + "\n"; });
    }
    void die() { station_.reset(); }
    fs::path results() const { return folder_ / "results"; }
    // Returns the run as both store and file have it. The file is complete.
    std::string verdicts(const RunRecord &run) {
        Database database(store_);
        const RunRecord stored = loadRun(database, run.id), file = FileRecords(results()).find(run).value();
        EXPECT_EQ(stored.steps.size(), file.ended() ? 2 : 1);
        EXPECT_EQ(FileRecords(results()).left({file.station.key}).size(), 0);
        return verdictIn(stored) + " " + verdictIn(file);
    }

    std::unique_ptr<StoreRecords> station_;
    std::string all_;
};
INSTANTIATE_TEST_SUITE_P(, Station, testing::Values("SQLite", "PostgreSQL"),
                         [](const auto &store) { return store.param; });

TEST_P(Station, MendsWhatADeadOneHasLeftInOnePlaceOnly) {
    std::vector<RunRecord> runs;
    for (const char *const serial : {"file", "store", "spool", "nowhere"}) runs.push_back(runOf(serial));
    start();
    for (RunRecord &run : runs) {
        station_->begins(run);
        run.steps[0].verdict = Verdict::kPassed;
        station_->stepEnded(run, 0);
    }
    die();
    for (RunRecord &run : runs) {
        run.steps[1].verdict = Verdict::kPassed;
        run.station = FileRecords(results()).find(run).value().station;
    }
    FileRecords(results()).ends(runs[0]);
    Database database(store_);
    database.transact([&] { save(database, runs[1]); });
    Spool(folder_ / "spool", {}).keep(runs[2]);
    start();
    for (size_t i = 0; i < 3; ++i) EXPECT_EQ(verdicts(runs[i]), "passed passed") << runs[i].unit;
    EXPECT_EQ(verdicts(runs[3]), "interrupted interrupted");
    EXPECT_THAT(all_, HasSubstr("which are now interrupted: " + runs[3].id + "\n"));
    EXPECT_EQ(kinds(folder_ / "spool"), std::set<std::string>{".spool"});
    die();
    start();
    station_->begins(runOf("later"));
    EXPECT_EQ(std::count(all_.begin(), all_.end(), '\n'), 2) << "mended once: " << all_;
}

TEST_P(Station, WaitsForAFileThatCannotBeReadNow) {
    RunRecord run = runOf("A");
    start();
    station_->begins(run);
    die();
    run.station = FileRecords(results()).find(run).value().station;
    run.steps[0].verdict = run.steps[1].verdict = Verdict::kPassed;
    FileRecords(results()).ends(run);
    Database database(store_);
    // Off for long: another station takes it for dead.
    database.run("UPDATE stations SET seen = '2026-01-01T00:00:00.000Z'");
    database.run("UPDATE runs SET verdict = 'interrupted', started = '2026-01-01T00:00:00.000Z'");
    const fs::path file = results() / fmt::format("line-{}-left.json", run.id), kept = folder_ / "kept";
    fs::rename(file, kept);
    fs::create_directory(file);  // a file that cannot be read at present
    std::ofstream(folder_ / "spool" / "stranger.spool");
    start();
    EXPECT_THAT(station_->away(), HasSubstr("cannot read " + file.string()));
    fs::remove(file);
    fs::rename(kept, file);
    while (!station_->away().empty()) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(verdicts(run), "passed passed");
    EXPECT_EQ(fs::status(file).permissions() & fs::perms::others_all, fs::perms::none);
}

TEST_P(Station, SetsAsideWhatTheStoreRefusesUntilItIsReplayed) {
    start();
    Database database(store_);
    database.run("CREATE UNIQUE INDEX once ON runs (failure)");
    RunRecord first = runOf("A"), second = runOf("B");
    for (RunRecord *const run : {&first, &second}) {
        station_->begins(*run);
        run->failure = "the same";
        endSteps(*station_, *run, {Verdict::kPassed, Verdict::kPassed});
    }
    EXPECT_THAT(all_, HasSubstr("the store refuses the run " + second.id));
    EXPECT_EQ(station_->away(), "");
    EXPECT_EQ(verdictIn(loadRun(database, second.id), true), "running");
    database.run("DROP INDEX once");
    const auto take = [&](const RunRecord &run) { database.transact([&] { save(database, run); }); };
    EXPECT_EQ(replay(folder_ / "spool", take, {}), 1);
    EXPECT_EQ(verdicts(second), "failed failed");
    EXPECT_EQ(replay(folder_ / "spool", take, {}), 0);
}

TEST_P(Station, CountsARunThatArrivesLate) {
    start();
    std::vector<RunRecord> runs = {runOf("A"), runOf("A"), runOf("A")};
    for (size_t i = 0; i < runs.size(); ++i) runs[i].start += std::chrono::seconds(i);
    Database database(store_);
    for (const size_t i : {2, 0, 1}) {
        station_->begins(runs[i]);
        endSteps(*station_, runs[i], {Verdict::kPassed, Verdict::kPassed});
    }
    database.transact([&] { save(database, unfinished(runs[0])); });  // comes too late: the run has ended
    const Table attempts = database.ask("SELECT attempt, verdict FROM runs ORDER BY started");
    for (size_t i = 0; i < runs.size(); ++i)
        EXPECT_THAT(cells(attempts, i), ElementsAre(std::to_string(i + 1), "passed"));
}

TEST_P(Station, KnowsHowAUnitWasJudged) {
    start();
    const auto named = [&](const char *plan) {
        RunRecord run = runOf("A");
        run.plan = plan;
        station_->begins(run);
        const auto known = station_->named(run);
        station_->ends(unfinished(run));
        return known ? fmt::format("{} {} {}", known->failed, known->passed(), known->where) : "away";
    };
    const char *const expected[] = {"0 false ", "1 false left", "1 false left", "2 false left", "0 true left"};
    const Verdict verdicts[] = {Verdict::kFailed, Verdict::kFailed, Verdict::kFailed, Verdict::kPassed,
                                Verdict::kFailed};
    for (size_t i = 0; i < std::size(verdicts); ++i) {
        EXPECT_EQ(named("line"), expected[i]);
        RunRecord run = runOf("A");
        run.start -= std::chrono::hours(i);  // the clock is set back
        run.cause = i == 1 ? Cause::kConnection : Cause::kNone;
        station_->begins(run);
        endSteps(*station_, run, {verdicts[i], Verdict::kPassed});
    }
    EXPECT_EQ(named("other"), expected[0]);
    RunRecord here = runOf("A");
    station_->begins(here);
    station_->named(here);
    const auto other = station();  // with a spool of its own
    RunRecord there = runOf("A");
    other->begins(there);
    EXPECT_THAT(refusal([&] { other->named(there); }), HasSubstr("the unit A is in work at place left of the station"));
    for (const char *const unit : {"B", ""}) {
        there.unit = unit;
        other->named(there);
    }
    other->begins(runOf("C"));  // returns after the unit is released
    RunRecord next = runOf("B");
    station_->begins(next);
    EXPECT_TRUE(station_->named(next));
    Database(store_).run("UPDATE runs SET unit = (SELECT id FROM units WHERE serial = 'A') WHERE run = $1", {there.id});
    EXPECT_THAT(refusal([&] { station_->bind("mac", here, 1); }), HasSubstr("is in work"))
        << "taken while this was away";
    goAway();
    EXPECT_FALSE(other->named(runOf("A")));
    comeBack();
}

TEST_P(Station, NoticesACopyOfItsSpool) {
    if (!shared_) GTEST_SKIP() << "its file is for the processes of one machine";
    start();
    const RunRecord run = runOf("A");
    station_->begins(run);
    fs::copy(folder_ / "spool", folder_ / "copy");
    std::string said;
    StoreRecords copy(store_, folder_ / "copy", nullptr);
    copy.tell([&](const std::string &text) { said += text; });
    EXPECT_THAT(copy.away(), HasSubstr("an earlier connection"));
    while (!copy.away().empty()) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_THAT(said, HasSubstr("Give each station a spool of its own"));
    Database database(store_);
    EXPECT_EQ(verdictIn(loadRun(database, run.id), true), "running");
}

TEST_P(Station, ArchivesOldRunsWhole) {
    start();
    addRange(*openStore(store_, Database::Missing::kIsAnError), "mac", "02:00:00:00:00:00", "02:00:00:00:00:FF", -1);
    std::vector<RunRecord> runs = {runOf("A"), runOf("B"), runOf("A"), runOf("A"), runOf("A")};
    runs[3].start += std::chrono::hours(24 * 365 * 100);
    for (RunRecord &run : runs) {
        station_->begins(run);
        station_->bind("mac", run, 4);
        if (&run != &runs.back()) endSteps(*station_, run, {Verdict::kPassed, Verdict::kPassed});
    }
    Database database(store_);
    const fs::path file = folder_ / "old.jsonl.gz";
    const std::string whole = dump(loadRun(database, runs[1].id));
    EXPECT_EQ(archiveRuns(database, "2020-01-01", file), 0);
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(archiveRuns(database, "2100-01-01", file), 3);
    const gzFile zipped = ::gzopen(file.c_str(), "r");
    std::string text(100'000, ' ');
    text.resize(size_t(::gzread(zipped, text.data(), unsigned(text.size()))));
    ::gzclose(zipped);
    EXPECT_THAT(text, AllOf(HasSubstr("}\n" + whole + "\n{"), HasSubstr(runs[2].id)));
    EXPECT_EQ(listRuns(database, {}).rows.size(), 2);  // the later one, and the one in work
    const auto unit = show(database, "02:00:00:00:00:04");
    EXPECT_EQ(unit[0].table.rows[0][0], "B");
    EXPECT_EQ(unit[1].table.rows[3][2], runs[1].id);
    EXPECT_THAT(cells(unit[3].table, 0), testing::Contains(file.string()));
    EXPECT_THAT(refusal([&] { show(database, runs[1].id); }), HasSubstr("archived in " + file.string()));
    EXPECT_THAT(refusal([&] { archiveRuns(database, "2100-01-01", file); }), HasSubstr("is there already"));
    // The runs that are left are still retests.
    endSteps(*station_, runs[4], {Verdict::kPassed, Verdict::kPassed});
    EXPECT_EQ(cells(yields(database, {}, By::kAll), 0)[5], "2");
}

TEST_P(Station, GoesOnFromABackupWithoutGivingAnAddressTwice) {
    start();
    const auto give = [this](const std::string &serial) {
        const RunRecord run = runOf(serial);
        station_->begins(run);
        return station_->bind("mac", run, 4).at(0);
    };
    Database line(store_);
    addRange(line, "mac", "02:00:00:00:00:00", "02:00:00:00:0F:FF", -1);
    const fs::path copy = folder_ / "copy.db";
    const std::string dump =
        "PGHOST={0} PGUSER=station; export PGHOST PGUSER; pg_dump --format=custom --file={1} postgres"
        " && createdb copy && pg_restore --dbname=copy {1}";
    const auto copyStore = [&] {
        if (!shared_) return backUp(store_, copy);
        const std::string command = fmt::format(fmt::runtime(dump), folder_.string(), copy.string());
        EXPECT_EQ(std::system(command.c_str()), 0);
    };
    const std::string first = give("before");
    std::set<std::string> given = {first};
    std::atomic<bool> over = false;
    std::thread work([&] {
        for (int i = 0; !over; ++i) given.insert(give(fmt::format("during {}", i)));
    });
    copyStore();
    over = true;
    work.join();
    given.insert(give("after"));
    die();
    EXPECT_THAT(refusal([&] { backUp(store_, copy); }), HasSubstr(shared_ ? "pg_dump" : "is there already"));
    store_ = shared_ ? fmt::format("postgresql:///copy?host={}&user=station", folder_.string()) : copy.string();
    Database restored(store_);
    retire(restored, "mac", "", "", false);
    addRange(restored, "mac", "04:00:00:00:00:00", "04:00:00:00:0F:FF", -1);
    start();
    EXPECT_EQ(give("before"), first);
    EXPECT_TRUE(given.insert(give("after")).second);
    EXPECT_TRUE(given.insert(give("new")).second);
}

}  // namespace
}  // namespace station
