#include "station/store/mend.h"

#include <fmt/format.h>

#include <map>
#include <utility>

#include "station/store/load.h"
#include "station/store/save.h"

namespace station {
namespace {

using Runs = std::map<std::string, RunRecord>;  // by ID

void consider(RunRecord &best, const RunRecord &run) {
    const auto done = [](const RunRecord &record) { return record.steps.size() - record.notRun(); };
    if (std::pair(run.ended(), done(run)) > std::pair(best.ended(), done(best))) best = run;
}

void add(Runs &all, const RunRecord &run) { consider(all.try_emplace(run.id, run).first->second, run); }

// Adds the runs that the store has as running, and those that another station marked as interrupted because this one
// was off for more than a day. Returns the latter: their ends may be in their files.
std::set<std::string> addRunning(Database &database, const std::set<std::string> &keys, Runs &all) {
    std::set<std::string> doubtful;
    for (const std::string &key : keys) {
        const Table running = database.ask("SELECT r.run, r.verdict FROM runs r JOIN stations s ON s.id = r.station"
                                           " WHERE s.key = $1 AND r.ended IS NULL AND (r.verdict = 'running'"
                                           " OR r.verdict = 'interrupted' AND r.started > " +
                                               database.timeBefore(std::chrono::days(1), "s.seen") + ")",
                                           {key});
        for (const auto &row : running.rows) {
            if (all.try_emplace(*row[0]).second && row[1] == "interrupted") doubtful.insert(*row[0]);
        }
    }
    return doubtful;
}

// Replaces the run by the store's or the file's record if that knows more.
void complete(Database &database, const FileRecords *files, const std::string &id, RunRecord &run) {
    if (!database.ask("SELECT 1 FROM runs WHERE run = $1", {id}).empty()) {
        const RunRecord stored = loadRun(database, id);
        if (run.id.empty()) run = stored;
        consider(run, stored);
    }
    if (const auto file = files ? files->find(run) : std::nullopt) consider(run, *file);
    run.interrupted |= !run.ended();
}

// Writes the file first: it is authoritative if the process dies in between.
void settle(Database &database, Spool &spool, FileRecords *files, const RunRecord &run, const Spool::Say &say) {
    try {
        if (files) files->ends(run);
    } catch (const RecordsError &error) {
        say(fmt::format("the result of the run {} is not written yet: {}", run.id, error.what()));
    }
    writeLate(database, spool, run);
}

}  // namespace

void writeLate(Database &database, Spool &spool, const RunRecord &run) try {
    database.transact([&] { save(database, run); });
    spool.forget(run.id);
} catch (const StoreAway &) {
    throw;
} catch (const StoreError &error) {
    spool.refuse(run, error.what());
}

void mend(Database &database, Spool &spool, FileRecords *files, const Spool::Say &say) {
    Runs all;
    const std::set<std::string> keys = spool.keys();
    for (const RunRecord &run : spool.kept()) add(all, run);
    for (const RunRecord &run : files ? files->left(keys) : std::vector<RunRecord>()) add(all, run);
    const std::set<std::string> doubtful = addRunning(database, keys, all);
    std::string interrupted, judged;
    const auto unclear = [&](const std::string &id, const std::exception &error) {
        say(fmt::format("what is known of the run {} cannot be put together: {}", id, error.what()));
    };
    for (auto &[id, run] : all) try {
            complete(database, files, id, run);
            if (!run.ended() && doubtful.contains(id)) continue;
            if (run.station.key.empty()) run.station.key = spool.key();  // an earlier version did not say it
            settle(database, spool, files, run, say);
            (run.ended() ? judged : interrupted) += " " + id;
        } catch (const StoreAway &) {
            throw;
        } catch (const StoreError &error) {
            unclear(id, error);
        } catch (const RecordsError &) {  // a file
            throw;
        } catch (const std::exception &error) {
            unclear(id, error);
        }
    if (!interrupted.empty()) say("a station that died has left runs, which are now interrupted:" + interrupted);
    if (!judged.empty()) say("runs that had ended were brought up to date in store and results:" + judged);
}

}  // namespace station
