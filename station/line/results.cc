#include "station/line/results.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <pugixml.hpp>
#include <sstream>
#include <string>

#include "image/new_file.h"

namespace station {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

constexpr size_t kReplyWidth = 160;  // of a reply or failure in a step's line

double seconds(WallClock::duration duration) { return std::chrono::duration<double>(duration).count(); }

// In UTC, with the parts of date and time as `format` has them (strftime), and milliseconds.
std::string timeText(WallClock::time_point time, const char *format) {
    const auto since = time.time_since_epoch();
    const auto milliseconds = std::chrono::duration_cast<Milliseconds>(since).count() % 1000;
    const std::string date =
        fmt::format(fmt::runtime(fmt::format("{{:{}}}", format)), fmt::gmtime(WallClock::to_time_t(time)));
    return fmt::format("{}.{:03}Z", date, milliseconds);
}

std::string isoTime(WallClock::time_point time) { return timeText(time, "%Y-%m-%dT%H:%M:%S"); }

std::string recordOf(const Plan &plan, const BoardResult &result) {
    json steps = json::array();
    for (size_t i = 0; i < plan.steps.size(); ++i) {
        const StepResult &step = result.steps[i];
        json entry = {{"step", plan.steps[i].title()},
                      {"seconds", double(step.duration.count()) / 1000},
                      {"verdict", step.passed ? "passed" : "failed"},
                      {"reply", step.reply}};
        if (plan.steps[i].kind == Kind::kCommand) entry["command"] = plan.steps[i].send;
        if (!step.passed) entry["failure"] = step.failure;
        steps.push_back(std::move(entry));
    }
    const json record = {{"plan", plan.name},
                         {"board", result.board},
                         {"peer", result.peer},
                         {"start", isoTime(result.start)},
                         {"end", isoTime(result.end)},
                         {"verdict", result.passed() ? "passed" : "failed"},
                         {"steps", steps}};
    // A reply may hold any bytes; what is no UTF-8 becomes U+FFFD.
    return record.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string logOf(const Plan &plan, const BoardResult &result) {
    std::string log = fmt::format("plan {}, board {}, {}, {}\n", plan.name, result.board,
                                  result.peer.empty() ? "never connected" : result.peer, isoTime(result.start));
    for (size_t i = 0; i < plan.steps.size(); ++i) log += describeStep(plan.steps[i], result.steps[i]) + "\n";
    return log + fmt::format("{} steps, {} failed\n", result.steps.size(), result.failures());
}

void addSuite(pugi::xml_node suites, const Plan &plan, const BoardResult &result) {
    pugi::xml_node suite = suites.append_child("testsuite");
    const std::string name = fmt::format("{}.board-{}", plan.name, result.board);
    suite.append_attribute("name") = name.c_str();
    suite.append_attribute("tests") = result.steps.size();
    suite.append_attribute("failures") = result.failures();
    suite.append_attribute("time") = fmt::format("{:.3f}", seconds(result.end - result.start)).c_str();
    suite.append_attribute("timestamp") = isoTime(result.start).c_str();
    suite.append_attribute("hostname") = result.peer.c_str();
    for (size_t i = 0; i < plan.steps.size(); ++i) {
        const StepResult &step = result.steps[i];
        pugi::xml_node test = suite.append_child("testcase");
        test.append_attribute("classname") = name.c_str();
        test.append_attribute("name") = oneLine(fmt::format("{} {}", i + 1, plan.steps[i].title())).c_str();
        test.append_attribute("time") = fmt::format("{:.3f}", double(step.duration.count()) / 1000).c_str();
        if (step.passed) continue;
        test.append_child("failure").append_attribute("message") = oneLine(step.failure).c_str();
    }
}

std::string reportOf(const Plan &plan, const std::vector<BoardResult> &results) {
    pugi::xml_document document;
    pugi::xml_node suites = document.append_child("testsuites");
    for (const BoardResult &result : results) addSuite(suites, plan, result);
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

std::string describeStep(const Step &step, const StepResult &result) {
    std::string text = oneLine(result.passed ? result.reply : result.failure);
    if (text.size() > kReplyWidth) text.erase(kReplyWidth).append("...");
    return fmt::format("{}  {:7.2f} s  {}  ->  {}", result.passed ? "ok    " : "FAILED", seconds(result.duration),
                       oneLine(step.title()), text);
}

std::string oneLine(const std::string &text) {
    std::string result;
    for (const char c : text) {
        if (c == '\n') {
            result += "\\n";
        } else if (c == '\033') {
            result += "\\e";
        } else {
            result += static_cast<unsigned char>(c) < ' ' || c == '\x7F' ? '?' : c;
        }
    }
    return result;
}

void prepareResults(const fs::path &folder) {
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) throw std::runtime_error(fmt::format("cannot make {}: {}", folder.string(), error.message()));
    const fwimage::NewFile probe(folder / "probe");  // gone at the end, as it is not kept
}

void writeResults(const fs::path &folder, const Plan &plan, WallClock::time_point start,
                  const std::vector<BoardResult> &results) {
    const std::string run = fmt::format("{}-{}", plan.name, timeText(start, "%Y%m%dT%H%M%S"));
    for (const BoardResult &result : results) {
        const std::string name = fmt::format("{}-board-{}", run, result.board);
        writeWhole(folder / (name + ".json"), recordOf(plan, result));
        writeWhole(folder / (name + ".log"), logOf(plan, result));
    }
    writeWhole(folder / (run + ".xml"), reportOf(plan, results));
}

}  // namespace station
