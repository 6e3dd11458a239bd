#include "station/plan.h"

#include <fmt/format.h>
#include <yaml-cpp/yaml.h>

#include <cmath>
#include <functional>
#include <map>
#include <string_view>

#include "station/session.h"

namespace station {
namespace {

namespace fs = std::filesystem;

// A fault at a place in the plan; the file's name joins it where that is known.
struct Fault {
    YAML::Mark mark;
    std::string text;
};

template <typename T>
T valueOf(const YAML::Node &node, std::string_view kind) {
    try {
        return node.as<T>();
    } catch (const YAML::Exception &) {
        throw Fault{node.Mark(), fmt::format("expected {}", kind)};
    }
}

std::string textOf(const YAML::Node &node) { return valueOf<std::string>(node, "a text"); }

void readSend(Step &step, const YAML::Node &node, const fs::path &) {
    step.send = textOf(node);
    if (step.send.empty()) throw Fault{node.Mark(), "an empty command cannot be sent"};
}

void readUpload(Step &step, const YAML::Node &node, const fs::path &folder) {
    step.upload = folder / textOf(node);
    if (!fs::is_regular_file(*step.upload)) throw Fault{node.Mark(), fmt::format("no file {}", step.upload->string())};
}

void readMatch(Step &step, const YAML::Node &node, const fs::path &) {
    step.matchText = textOf(node);
    try {
        step.match = std::regex(step.matchText);
    } catch (const std::regex_error &error) {
        throw Fault{node.Mark(), fmt::format("bad expression: {}", error.what())};
    }
}

void readTimeout(Step &step, const YAML::Node &node, const fs::path &) {
    const double seconds = valueOf<double>(node, "a number of seconds");
    if (!(seconds > 0 && seconds <= 86400)) throw Fault{node.Mark(), "a time limit lies between 0 and 86400 seconds"};
    step.timeout = std::chrono::milliseconds(std::llround(seconds * 1000));
}

using Reader = void (*)(Step &step, const YAML::Node &value, const fs::path &folder);

const std::map<std::string_view, Reader> kKeys = {
    {"send", readSend},
    {"upload", readUpload},
    {"expect", [](Step &step, const YAML::Node &node, const fs::path &) { step.expect = textOf(node); }},
    {"match", readMatch},
    {"timeout", readTimeout},
    {"bare",
     [](Step &step, const YAML::Node &node, const fs::path &) { step.bare = valueOf<bool>(node, "true or false"); }},
    {"closes",
     [](Step &step, const YAML::Node &node, const fs::path &) { step.closes = valueOf<bool>(node, "true or false"); }},
};

void replaceSize(std::string &text, uintmax_t size) {
    constexpr std::string_view kPlaceholder = "{size}";
    const size_t position = text.find(kPlaceholder);
    if (position != std::string::npos) text.replace(position, kPlaceholder.size(), std::to_string(size));
}

Step readStep(const YAML::Node &node, const fs::path &folder) {
    if (!node.IsMap()) throw Fault{node.Mark(), "a step is a map of keys"};
    Step step;
    for (const auto &entry : node) {
        const std::string key = textOf(entry.first);
        const auto reader = kKeys.find(key);
        if (reader == kKeys.end()) throw Fault{entry.first.Mark(), fmt::format("unknown key \"{}\"", key)};
        reader->second(step, entry.second, folder);
    }
    if (step.send.empty()) throw Fault{node.Mark(), "a step needs \"send\""};
    if (!step.expect && !step.match) throw Fault{node.Mark(), "a step needs \"expect\" or \"match\""};
    if (step.expect && step.match) throw Fault{node.Mark(), "\"expect\" and \"match\" exclude each other"};
    if (step.upload) {
        const uintmax_t size = fs::file_size(*step.upload);
        replaceSize(step.send, size);
        if (step.expect) replaceSize(*step.expect, size);
    }
    if (!step.bare && step.send.size() > kFrame) {
        throw Fault{node.Mark(), fmt::format("a command has at most {} bytes", kFrame)};
    }
    return step;
}

}  // namespace

Plan loadPlan(const fs::path &path) {
    const auto place = [&](const YAML::Mark &mark) {
        return mark.is_null() ? path.string() : fmt::format("{}:{}:{}", path.string(), mark.line + 1, mark.column + 1);
    };
    try {
        const YAML::Node list = YAML::LoadFile(path.string());
        if (!list.IsSequence() || list.size() == 0) throw Fault{list.Mark(), "a plan is a list of steps"};
        Plan plan{path.stem().string(), {}};
        for (const YAML::Node &node : list) plan.steps.push_back(readStep(node, path.parent_path()));
        return plan;
    } catch (const Fault &fault) {
        throw PlanError(fmt::format("{}: {}", place(fault.mark), fault.text));
    } catch (const YAML::BadFile &) {
        throw PlanError(fmt::format("{}: cannot be read", path.string()));
    } catch (const YAML::Exception &error) {
        throw PlanError(fmt::format("{}: {}", place(error.mark), error.msg));
    }
}

}  // namespace station
