#include "station/store/store_records.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "station/base/machine.h"
#include "station/base/time.h"
#include "station/store/pool.h"

namespace station {
namespace {

constexpr std::chrono::seconds kSilence{30};  // of a living process, at most

Value words(const std::string &value) { return text(value).value_or(""); }
Value words(std::string_view value) { return words(std::string(value)); }
Value limit(const std::optional<double> &value) { return value ? number(*value) : std::nullopt; }

std::string verdictOf(const RunRecord &run) {
    if (run.interrupted) return "interrupted";
    return run.passed() ? "passed" : "failed";
}

size_t firstFailed(const RunRecord &run) {
    const auto failed = std::find_if(run.steps.begin(), run.steps.end(),
                                     [](const StepResult &step) { return step.verdict == Verdict::kFailed; });
    return size_t(failed - run.steps.begin());
}

void addStep(Statements &statements, const RunRecord &run, size_t index) {
    const StepResult &step = run.steps[index];
    const Value at = number(index + 1);
    statements.push_back({"step",
                          {run.id, at, words(step.title), words(textOf(step.verdict)), text(step.reply),
                           number(step.cut), text(step.failure), text(step.hint), number(inSeconds(step.offset)),
                           number(inSeconds(step.duration)), number(step.attempts)}});
    for (const Measurement &found : step.measurements) {
        statements.push_back({"measurement",
                              {run.id, at, words(found.name), number(found.value), limit(found.min), limit(found.max),
                               text(found.unit), found.passed ? "passed" : "failed"}});
    }
}

// Where another process, which is heard of, has the unit in work; empty: nowhere. The update changes nothing: unlike a
// question it is planned once, and counts.
std::string otherPlace(Database &database, const std::string &serial, const std::string &key) {
    const std::string other = " FROM runs r JOIN units u ON u.id = r.unit JOIN stations s ON s.id = r.station"
                              " WHERE u.serial = $1 AND r.verdict = 'running' AND s.key <> $2 AND s.seen > $3";
    const std::vector<Value> values = {serial, key, isoTime(WallClock::now() - kSilence)};
    if (database.run("UPDATE stations SET seen = seen WHERE key = $2 AND EXISTS (SELECT 1" + other + ")", values) ==
        0) {
        return {};
    }
    const Table found = database.ask("SELECT r.place_name, s.name" + other, values);
    return fmt::format("place {} of the station {}", *found.rows.at(0)[0], *found.rows[0][1]);
}

// The serial number of one product must not pass for that of another: the label may be the wrong one.
struct OtherProduct : Refusal {
    using Refusal::Refusal;
};

void refuseOtherProduct(Database &database, const std::string &serial, const std::string &product) {
    const Table found =
        database.ask("SELECT product FROM units WHERE serial = $1 AND product <> $2", {serial, text(product)});
    if (found.empty()) return;
    throw OtherProduct(
        fmt::format("the serial number {} is that of a unit of the product {}, and this one is a {}: check"
                    " the label. Products that count alike need the product in their serial numbers",
                    serial, *found.rows[0][0], product));
}

template <typename Call>
auto asRecordsError(Call &&call) {
    try {
        return call();
    } catch (const StoreError &error) {
        throw RecordsError(error.what());
    }
}

}  // namespace

StoreRecords::StoreRecords(const std::string &store, const std::filesystem::path &spool,
                           std::unique_ptr<Records> beside)
    : beside_(std::move(beside)),
      writer_(asRecordsError([&] { return takeSpools(spool); }), store, hostName(),
              [this](const std::string &trouble) { say(trouble); }) {}

std::string StoreRecords::away() {
    const std::string why = writer_.away();
    return why.empty() ? beside_->away() : why;
}

void StoreRecords::tell(const std::function<void(const std::string &)> &trouble) {
    const std::lock_guard lock(mutex_);
    trouble_ = trouble;
    if (trouble_) std::for_each(unsaid_.begin(), unsaid_.end(), trouble_);
    if (trouble_) unsaid_.clear();
}

void StoreRecords::say(const std::string &trouble) {
    const std::lock_guard lock(mutex_);
    if (!trouble_) return unsaid_.push_back(trouble);
    trouble_(trouble);
}

// The unit, which may become known at any time of a run, and the run as it is now.
Statements StoreRecords::runOf(const RunRecord &run, const std::string &verdict) {
    const bool over = verdict != "running";
    const auto product = run.variables.find("product");
    const size_t failed = firstFailed(run);
    const bool fails = failed < run.steps.size();
    nlohmann::json variables = nlohmann::json::object();
    for (const auto &[name, value] : run.variables) variables[name] = *words(value);
    Statements statements;
    if (!run.unit.empty()) {
        const std::string known = product == run.variables.end() ? "" : product->second;
        statements.push_back({"unit", {text(run.unit), text(known), isoTime(run.start)}});
    }
    statements.push_back(
        {"run",
         {run.id, text(run.unit), words(run.plan), writer_.key(), number(run.place.number), words(run.place.name),
          text(run.peer), isoTime(run.start), over ? Value(isoTime(run.end)) : std::nullopt,
          over ? number(inSeconds(run.end - run.start)) : std::nullopt, verdict,
          fails ? words(failedStep(run)) : std::nullopt,
          text(run.failure.empty() && fails ? run.steps[failed].failure : run.failure), variables.dump()}});
    return statements;
}

// By what the step is called in the plan, as every unit fills in its own variables.
std::string StoreRecords::failedStep(const RunRecord &run) {
    const size_t failed = firstFailed(run);
    const std::lock_guard lock(mutex_);
    const auto titles = titles_.find(run.id);
    return titles == titles_.end() ? run.steps[failed].title : titles->second.at(failed);
}

void StoreRecords::begins(const RunRecord &run) {
    {
        const std::lock_guard lock(mutex_);
        std::vector<std::string> &titles = titles_[run.id];
        titles.clear();
        for (const StepResult &step : run.steps) titles.push_back(step.title);
    }
    asRecordsError([&] {
        try {
            writer_.store(runOf(run, "running"));
        } catch (const StoreError &) {  // it may be there all the same, when only the answer was lost
            writer_.later({{"abandon", {run.id}}});
            throw;
        }
    });
    beside_->begins(run);
}

// Once, and again at each half of what was left.
bool StoreRecords::isNews(const std::string &pool, int64_t left) {
    const std::lock_guard lock(mutex_);
    const auto [told, first] = told_.emplace(pool, left);
    if (!first && left > told->second / 2) return false;
    told->second = left;
    return true;
}

// In a transaction, behind which no other station has the unit.
void StoreRecords::asUnit(const RunRecord &run,
                          const std::function<void(Database &, const std::string &serial)> &work) {
    const auto isNamed = [&](bool stored) {
        const std::lock_guard lock(mutex_);
        if (stored) named_[run.id] = run.unit;
        const auto name = named_.find(run.id);
        return name != named_.end() && name->second == run.unit;
    };
    const Statements statements = isNamed(false) ? Statements() : runOf(run, "running");
    const auto known = run.variables.find("product");
    const std::string product = known == run.variables.end() ? "" : known->second;
    writer_.store([=, serial = *text(run.unit), key = writer_.key()](Database &store) {
        store.lock("unit " + serial);
        if (!statements.empty() && !product.empty()) refuseOtherProduct(store, serial, product);
        const std::string where = statements.empty() ? "" : otherPlace(store, serial, key);
        if (!where.empty()) throw Refusal(where);
        for (const Statement &statement : statements) execute(store, statement);
        work(store, serial);
    });
    isNamed(true);
}

std::string StoreRecords::elsewhere(const RunRecord &run) try {
    asUnit(run, [](Database &, const std::string &) {});
    return {};
} catch (const OtherProduct &) {  // which bind() refuses
    return {};
} catch (const Refusal &where) {
    return where.what();
} catch (const StoreError &) {  // away: who shares it is not known
    return {};
}

std::vector<std::string> StoreRecords::bind(const std::string &pool, const RunRecord &run, int count) {
    if (run.unit.empty()) throw RecordsError(fmt::format("\"{}\" is given to a unit, whose serial is not known", pool));
    const auto given = std::make_shared<std::shared_ptr<Given>>();
    asRecordsError([&] {
        asUnit(run, [=](Database &database, const std::string &serial) {
            *given = take(database, pool, serial, run.id, count);
        });
    });
    const Given &found = **given;
    const auto values = asRecordsError([&] { return valuesOf(found); });
    if (found.had > 0) {
        say(fmt::format(
            "the unit {} had {} addresses of the pool \"{}\", which are no block of {}: it has new ones now", run.unit,
            found.had, pool, count));
    }
    if (found.low && isNews(pool, found.left)) {
        say(fmt::format("the pool \"{}\" runs low: enough for {} more units", pool, found.left));
    }
    sayWarnings();
    return values;
}

// Once an hour: it looks at a week of units.
void StoreRecords::sayWarnings() {
    {
        const std::lock_guard lock(mutex_);
        if (Clock::now() < nextLook_) return;
        nextLook_ = Clock::now() + std::chrono::hours(1);
    }
    const auto warnings = std::make_shared<std::vector<std::string>>();
    try {
        writer_.store([=](Database &database) { *warnings = poolWarnings(database); });
    } catch (const StoreError &) {  // the next board will hear of it
    }
    for (const std::string &warning : *warnings) say(warning);
}

void StoreRecords::stepEnded(const RunRecord &run, size_t step) {
    Statements statements;
    addStep(statements, run, step);
    writer_.later(std::move(statements));
    beside_->stepEnded(run, step);
}

void StoreRecords::ends(const RunRecord &run) {
    Statements statements = runOf(run, verdictOf(run));
    statements.push_back({"attempt", {run.id}});
    for (size_t i = 0; i < run.steps.size(); ++i) {
        if (run.steps[i].verdict == Verdict::kNotRun) addStep(statements, run, i);
    }
    {
        const std::lock_guard lock(mutex_);
        titles_.erase(run.id);
        named_.erase(run.id);
    }
    asRecordsError([&] { writer_.keep(std::move(statements)); });
    beside_->ends(run);
}

std::filesystem::path defaultSpool(const std::string &store) {
    return store.find("://") == std::string::npos ? store + "-spool" : "qcstation-spool";
}

}  // namespace station
