#include "station/line/results.h"

#include <fmt/format.h>

#include <pugixml.hpp>
#include <sstream>
#include <string>

#include "image/new_file.h"
#include "station/line/record_json.h"

namespace station {
namespace {

namespace fs = std::filesystem;

double seconds(WallClock::duration duration) { return std::chrono::duration<double>(duration).count(); }

std::string logOf(const RunRecord &run) {
    std::string log = fmt::format("plan {}, place {}, {}, {}\n", run.plan, run.place.name,
                                  run.peer.empty() ? "never connected" : run.peer, isoTime(run.start));
    for (const StepResult &step : run.steps) log += describeStep(step) + "\n";
    if (!run.failure.empty()) log += fmt::format("FAILED  {}\n", oneLine(run.failure));
    return log + fmt::format("{} steps, {} failed\n", run.steps.size(), run.failures());
}

void addCase(pugi::xml_node suite, const std::string &name, std::chrono::milliseconds duration,
             const std::string &failure) {
    pugi::xml_node test = suite.append_child("testcase");
    test.append_attribute("classname") = suite.attribute("name").value();
    test.append_attribute("name") = oneLine(name).c_str();
    test.append_attribute("time") = fmt::format("{:.3f}", seconds(duration)).c_str();
    if (!failure.empty()) test.append_child("failure").append_attribute("message") = oneLine(failure).c_str();
}

std::string reportOf(const RunRecord &run) {
    pugi::xml_document document;
    pugi::xml_node suite = document.append_child("testsuites").append_child("testsuite");
    suite.append_attribute("name") = fmt::format("{}.{}", run.plan, run.place.name).c_str();
    suite.append_attribute("tests") = run.steps.size() + 1;
    suite.append_attribute("failures") = run.failures() + (run.failure.empty() ? 0 : 1);
    suite.append_attribute("time") = fmt::format("{:.3f}", seconds(run.end - run.start)).c_str();
    suite.append_attribute("timestamp") = isoTime(run.start).c_str();
    suite.append_attribute("hostname") = run.peer.c_str();
    addCase(suite, "0 the run", std::chrono::milliseconds(0), run.failure);
    for (size_t i = 0; i < run.steps.size(); ++i) {
        addCase(suite, fmt::format("{} {}", i + 1, run.steps[i].title), run.steps[i].duration, run.steps[i].failure);
    }
    std::ostringstream text;
    document.save(text, "  ", pugi::format_default, pugi::encoding_utf8);
    return text.str();
}

void writeWhole(const fs::path &path, const std::string &content) {
    fwimage::NewFile file(path);
    file.write(content);
    file.keep();
}

}  // namespace

void prepareResults(const fs::path &folder) {
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) throw std::runtime_error(fmt::format("cannot make {}: {}", folder.string(), error.message()));
    const fwimage::NewFile probe(folder / "probe");  // gone at the end, as it is not kept
}

void writeResult(const fs::path &folder, const RunRecord &run) {
    const std::string name = fmt::format("{}-{}-{}", run.plan, run.id, run.place.name);
    writeWhole(folder / (name + ".json"), dump(toJson(run), 2) + "\n");
    writeWhole(folder / (name + ".log"), logOf(run));
    writeWhole(folder / (name + ".xml"), reportOf(run));
}

}  // namespace station
