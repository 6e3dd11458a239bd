#include "station/run/results.h"

#include <fmt/format.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <pugixml.hpp>
#include <sstream>

#include "station/base/descriptor.h"
#include "station/base/file.h"
#include "station/base/text.h"
#include "station/base/time.h"
#include "station/run/record_json.h"

namespace station {
namespace {

namespace fs = std::filesystem;

constexpr uint64_t kRoom = 256 << 10;   // bytes that a disk has left when no more boards are taken
constexpr uint64_t kLongest = 1 << 30;  // bytes of a record

std::string logOf(const RunRecord &run) {
    std::string log = fmt::format("plan {}, place {}, {}, {}\n", run.plan, run.place.name,
                                  run.peer.empty() ? "never connected" : run.peer, isoTime(run.start));
    for (const StepResult &step : run.steps) log += describeStep(step) + "\n";
    if (!run.failure.empty()) log += fmt::format("FAILED  {}\n", oneLine(run.failure));
    return log + countsOf(run) + "\n" + endLine(run) + "\n";
}

// `outcome` is the element that says why the case did not pass.
void addCase(pugi::xml_node suite, const std::string &name, std::chrono::milliseconds duration,
             const std::string &failure, const char *outcome) {
    pugi::xml_node test = suite.append_child("testcase");
    test.append_attribute("classname") = suite.attribute("name").value();
    test.append_attribute("name") = oneLine(name).c_str();
    test.append_attribute("time") = fmt::format("{:.3f}", inSeconds(duration)).c_str();
    if (!failure.empty()) test.append_child(outcome).append_attribute("message") = oneLine(failure).c_str();
}

std::string reportOf(const RunRecord &run) {
    pugi::xml_document document;
    pugi::xml_node suite = document.append_child("testsuites").append_child("testsuite");
    suite.append_attribute("name") = oneLine(run.plan + "." + run.place.name).c_str();
    suite.append_attribute("tests") = run.steps.size() + 1;
    const auto isError = [](const StepResult &step) { return step.cause > Cause::kUnit; };
    const auto errors = static_cast<size_t>(std::ranges::count_if(run.steps, isError));
    const std::string problem = run.failure.empty() && run.interrupted ? summaryOf(run) : run.failure;
    suite.append_attribute("failures") = run.failures() - errors;
    suite.append_attribute("errors") = errors + (problem.empty() ? 0 : 1);
    suite.append_attribute("skipped") = run.notRun();
    suite.append_attribute("time") = fmt::format("{:.3f}", run.ended() ? inSeconds(run.end - run.start) : 0).c_str();
    suite.append_attribute("timestamp") = isoTime(run.start).c_str();
    suite.append_attribute("hostname") = run.peer.c_str();
    addCase(suite, "0 the run", std::chrono::milliseconds(0), problem, "error");  // never the unit's fault
    for (size_t i = 0; i < run.steps.size(); ++i) {
        const StepResult &step = run.steps[i];
        addCase(suite, fmt::format("{} {}", i + 1, step.title), step.duration, step.failure,
                isError(step)                      ? "error"
                : step.verdict == Verdict::kFailed ? "failure"
                                                   : "skipped");
    }
    std::ostringstream text;
    document.save(text, "  ", pugi::format_default, pugi::encoding_utf8);
    return text.str();
}

void writeWhole(const fs::path &path, const std::string &content, bool durable) try {
    NewFile file(path, 0640);  // it may have keys in it
    file.write(content);
    file.keep(durable);
} catch (const std::runtime_error &error) {
    throw RecordsError(error.what());
}

fs::path fileOf(const fs::path &folder, const RunRecord &run, const char *extension) {
    return folder / fmt::format("{}-{}-{}{}", run.plan, run.id, run.place.name, extension);
}

// Returns the file's record; nothing when there is no such file, or when it is not a record, as after a power cut.
// Throws RecordsError when the file cannot be read at present: it may be the only one that has the run's end.
std::optional<RunRecord> readRecord(const fs::path &path) {
    std::optional<std::string> text;
    try {
        if (::access(path.c_str(), R_OK) == 0 || errno != EACCES) text = readFileIfThere(path, kLongest);
    } catch (const std::runtime_error &error) {
        throw RecordsError(fmt::format("{}: if that stays so, move the file out of the folder", error.what()));
    }
    try {
        return text ? std::optional(parseRecord(*text)) : std::nullopt;
    } catch (const std::runtime_error &) {
        return std::nullopt;
    }
}

void writeRecord(const fs::path &folder, const RunRecord &run, bool durable) {
    writeWhole(fileOf(folder, run, ".json"), dump(run, 2) + "\n", durable);
}

}  // namespace

void writeResult(const fs::path &folder, const RunRecord &run) {
    writeRecord(folder, run, true);
    writeWhole(fileOf(folder, run, ".xml"), reportOf(run), false);
    writeWhole(fileOf(folder, run, ".log"), logOf(run), true);  // the last: without it the rest is written again
}

std::string fullness(const fs::path &folder) {
    struct statvfs disk {};
    const std::string name = folder.empty() ? "." : folder.string();
    if (::access(name.c_str(), W_OK | X_OK) != 0 || ::statvfs(name.c_str(), &disk) != 0) {
        return describeError("cannot write to " + name);
    }
    if (disk.f_bavail * disk.f_frsize >= kRoom && (disk.f_files == 0 || disk.f_favail > 0)) return {};
    return fmt::format("the disk of {} is full: make room there", name);
}

FileRecords::FileRecords(fs::path folder) : folder_(std::move(folder)) {
    std::error_code error;
    fs::create_directories(folder_, error);
    if (error) throw RecordsError(fmt::format("cannot make {}: {}", folder_.string(), error.message()));
    if (::access(folder_.c_str(), W_OK | X_OK) != 0)
        throw RecordsError(describeError("cannot write to " + folder_.string()));
}

std::string FileRecords::away() try {
    const Lock lock(mutex_);
    while (!unwritten_.empty()) {
        writeResult(folder_, unwritten_.begin()->second);
        unwritten_.erase(unwritten_.begin());
    }
    return fullness(folder_);
} catch (const RecordsError &error) {
    return error.what();
}

void FileRecords::begins(const RunRecord &run) { writeRecord(folder_, unfinished(run), true); }

void FileRecords::stepEnded(const RunRecord &run, size_t) try {
    writeRecord(folder_, unfinished(run), false);
} catch (const RecordsError &) {  // the whole record is written again at the end
}

void FileRecords::ends(const RunRecord &run) try { writeResult(folder_, run); } catch (const RecordsError &) {
    const Lock lock(mutex_);
    unwritten_[run.id] = run;
    throw;
}

std::optional<RunRecord> FileRecords::find(const RunRecord &run) const {
    return readRecord(fileOf(folder_, run, ".json"));
}

std::vector<RunRecord> FileRecords::left(const std::set<std::string> &keys) const {
    std::vector<RunRecord> left;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator(folder_, error)) {
        fs::path path = entry.path();
        if (path.extension() != ".json" || !entry.is_regular_file(error) || fs::exists(path.replace_extension(".log")))
            continue;
        const auto run = readRecord(entry.path());
        if (run && keys.contains(run->station.key)) left.push_back(*run);
    }
    return left;
}

}  // namespace station
