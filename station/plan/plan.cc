#include "station/plan/plan.h"

#include <fmt/format.h>
#include <yaml-cpp/yaml.h>

#include <cmath>
#include <map>
#include <set>
#include <string_view>

#include "station/wire/session.h"

namespace station {
namespace {

namespace fs = std::filesystem;

// A fault at a place in the plan; the file's name joins it where that is known.
struct Fault {
    YAML::Mark mark;
    std::string text;
};

// Where a step is being read.
struct Place {
    YAML::Node value;
    fs::path folder;

    [[noreturn]] void fail(std::string text) const { throw Fault{value.Mark(), std::move(text)}; }

    template <typename T>
    T as(std::string_view kind) const {
        try {
            return value.as<T>();
        } catch (const YAML::Exception &) {
            fail(fmt::format("expected {}", kind));
        }
    }
    std::string text() const {
        if (!value.IsScalar()) fail("expected a text");
        return value.Scalar();
    }
    bool flag() const { return as<bool>("true or false"); }
    fs::path file() const {
        fs::path path = folder / text();
        if (!fs::is_regular_file(path)) fail(fmt::format("no file {}", path.string()));
        return path;
    }
};

void readSend(Step &step, const Place &place) {
    step.send = place.text();
    if (step.send.empty()) place.fail("an empty command cannot be sent");
}

void readMatch(Step &step, const Place &place) {
    step.expected.matchText = place.text();
    try {
        step.expected.match = std::regex(step.expected.matchText);
    } catch (const std::regex_error &error) {
        place.fail(fmt::format("bad expression: {}", error.what()));
    }
}

void readTimeout(Step &step, const Place &place) {
    const double seconds = place.as<double>("a number of seconds");
    if (!(seconds > 0 && seconds <= 86400)) place.fail("a time limit lies between 0 and 86400 seconds");
    step.timeout = std::chrono::milliseconds(std::llround(seconds * 1000));
}

void readStatus(Step &step, const Place &place) {
    step.status = place.as<int>("a number");
    if (step.status < 0 || step.status > 255) place.fail("an exit status lies between 0 and 255");
}

void readPartition(Step &step, const Place &place) {
    step.partition = place.as<int>("a number");
    if (step.partition < 0) place.fail("a partition's number is not negative");
}

void readShow(Step &step, const Place &place) { step.show = place.flag(); }

void readFile(Step &step, const Place &place) { step.file = place.file(); }

using Reader = void (*)(Step &step, const Place &place);

// The keys of each kind of step, of which the first says which kind it is.
struct KindOfStep {
    std::string_view word;
    Kind kind;
    std::map<std::string_view, Reader> keys;
};

const std::vector<KindOfStep> kKinds = {
    {"send",
     Kind::kCommand,
     {{"send", readSend},
      {"upload", readFile},
      {"expect", [](Step &step, const Place &place) { step.expected.text = place.text(); }},
      {"match", readMatch},
      {"timeout", readTimeout},
      {"show", readShow},
      {"bare", [](Step &step, const Place &place) { step.bare = place.flag(); }},
      {"closes", [](Step &step, const Place &place) { step.closes = place.flag(); }}}},
    {"script",
     Kind::kScript,
     {{"script", readFile},
      {"output", [](Step &step, const Place &place) { step.expected.text = place.text(); }},
      {"match", readMatch},
      {"status", readStatus},
      {"show", readShow},
      {"timeout", readTimeout}}},
    {"verify",
     Kind::kVerify,
     {{"verify", readFile},
      {"partition", readPartition},
      {"erased", [](Step &step, const Place &place) { step.erased = place.flag(); }},
      {"show", readShow},
      {"timeout", readTimeout}}},
};

const KindOfStep &kindOf(const YAML::Node &node) {
    if (!node.IsMap()) throw Fault{node.Mark(), "a step is a map of keys"};
    for (const KindOfStep &kind : kKinds) {
        if (node[std::string(kind.word)]) return kind;
    }
    throw Fault{node.Mark(), "a step needs \"send\", \"script\" or \"verify\""};
}

void replaceSize(std::string &text, uintmax_t size) {
    constexpr std::string_view kPlaceholder = "{size}";
    const std::string digits = std::to_string(size);
    for (size_t at = 0; (at = text.find(kPlaceholder, at)) != std::string::npos; at += digits.size()) {
        text.replace(at, kPlaceholder.size(), digits);
    }
}

// What can only be told when all keys are known. Returns the fault, empty for none.
std::string completeStep(Step &step) {
    if (step.expected.text && step.expected.match) return "the whole text and a match exclude each other";
    if (step.kind == Kind::kVerify && step.partition < 0) return "\"verify\" needs \"partition\"";
    if (step.kind != Kind::kCommand) return {};
    if (!step.expected.text && !step.expected.match) return "a command needs \"expect\" or \"match\"";
    if (step.file) {
        const uintmax_t size = fs::file_size(*step.file);
        replaceSize(step.send, size);
        if (step.expected.text) replaceSize(*step.expected.text, size);
    }
    if (step.bare || step.send.size() <= kFrame) return {};
    return fmt::format("a command has at most {} bytes", kFrame);
}

// Reads one key of a step.
void readKey(Step &step, const KindOfStep &kind, const YAML::Node &name, const YAML::Node &value,
             const fs::path &folder, std::set<std::string> &seen) {
    const std::string key = Place{name, {}}.text();
    const auto reader = kind.keys.find(key);
    if (reader == kind.keys.end()) {
        throw Fault{name.Mark(), fmt::format("unknown key \"{}\" in a \"{}\" step", key, kind.word)};
    }
    if (!seen.insert(key).second) throw Fault{name.Mark(), fmt::format("\"{}\" stands twice", key)};
    reader->second(step, {value, folder});
}

// Adds what is wrong with the step to `faults`.
Step readStep(const YAML::Node &node, const fs::path &folder, std::vector<Fault> &faults) {
    Step step;
    const size_t before = faults.size();
    try {
        const KindOfStep &kind = kindOf(node);
        step.kind = kind.kind;
        std::set<std::string> seen;
        for (const auto &entry : node) {
            try {
                readKey(step, kind, entry.first, entry.second, folder, seen);
            } catch (Fault &fault) {
                faults.push_back(std::move(fault));
            }
        }
    } catch (Fault &fault) {
        faults.push_back(std::move(fault));
    }
    // A step with a wrong key would only be found incomplete for that.
    const std::string fault = faults.size() == before ? completeStep(step) : "";
    if (!fault.empty()) faults.push_back({node.Mark(), fault});
    return step;
}

}  // namespace

std::string Expectation::judge(const std::string &actual) const {
    if (text && actual != *text) return fmt::format("expected \"{}\", got \"{}\"", *text, actual);
    if (match && !std::regex_search(actual, *match)) {
        return fmt::format("expected a match of \"{}\", got \"{}\"", matchText, actual);
    }
    return {};
}

std::string Step::title() const {
    const std::string name = file ? file->filename().string() : "";
    switch (kind) {
    case Kind::kScript:
        return "script " + name;
    case Kind::kVerify:
        return fmt::format("verify partition {} against {}", partition, name);
    case Kind::kCommand:
        break;
    }
    return file ? fmt::format("{}  [{}]", send, name) : send;
}

Plan loadPlan(const fs::path &path, const fs::path &files) {
    std::vector<Fault> faults;
    Plan plan{path.stem().string(), {}};
    try {
        const YAML::Node list = YAML::LoadFile(path.string());
        if (!list.IsSequence() || list.size() == 0) throw Fault{list.Mark(), "a plan is a list of steps"};
        for (const YAML::Node &node : list) {
            plan.steps.push_back(readStep(node, files.empty() ? path.parent_path() : files, faults));
        }
    } catch (Fault &fault) {
        faults.push_back(std::move(fault));
    } catch (const YAML::ParserException &error) {
        faults.push_back({error.mark, error.msg});
    } catch (const std::exception &) {
        faults.push_back({YAML::Mark::null_mark(), "cannot be read"});
    }
    if (faults.empty()) return plan;

    std::string text;
    for (const Fault &fault : faults) {
        text += text.empty() ? "" : "\n";
        text += fault.mark.is_null() ? fmt::format("{}: {}", path.string(), fault.text)
                                     : fmt::format("{}:{}:{}: {}", path.string(), fault.mark.line + 1,
                                                   fault.mark.column + 1, fault.text);
    }
    throw PlanError(text);
}

}  // namespace station
