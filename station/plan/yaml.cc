#include "station/plan/yaml.h"

#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/parser.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <sstream>
#include <utility>

#include "station/base/file.h"
#include "station/base/text.h"

namespace station {

namespace {

// Lets one document pass. The library's LoadAll() never ends on some texts: a ',' at a line's start is an empty
// document to it, again and again; and Load() ignores what follows the first.
class OneDocument : public YAML::EventHandler {
public:
    void OnDocumentStart(const YAML::Mark &mark) override {
        if (std::exchange(started_, true))
            throw Fault{mark, "a second document begins here, and a file has one: look for a wrong character"};
    }
    void OnDocumentEnd() override {}
    void OnNull(const YAML::Mark &, YAML::anchor_t) override {}
    void OnAlias(const YAML::Mark &, YAML::anchor_t) override {}
    void OnScalar(const YAML::Mark &, const std::string &, YAML::anchor_t, const std::string &) override {}
    void OnSequenceStart(const YAML::Mark &, const std::string &, YAML::anchor_t, YAML::EmitterStyle::value) override {}
    void OnSequenceEnd() override {}
    void OnMapStart(const YAML::Mark &, const std::string &, YAML::anchor_t, YAML::EmitterStyle::value) override {}
    void OnMapEnd() override {}

private:
    bool started_ = false;
};

}  // namespace

YAML::Node parseDocument(const std::string &text) try {
    std::istringstream stream(text);
    YAML::Parser parser(stream);
    OneDocument one;
    while (parser.HandleNextDocument(one)) {
    }
    return YAML::Load(text);
} catch (const YAML::Exception &error) {
    throw Fault{error.mark, error.msg};
}

YAML::Node loadDocument(const std::filesystem::path &path, std::string *read) try {
    const std::string text = readFile(path, kLargestFile);
    if (read != nullptr) *read = text;
    return parseDocument(text);
} catch (const std::runtime_error &error) {
    throw Fault{YAML::Mark::null_mark(), error.what()};
}

std::string describe(const std::filesystem::path &path, const std::vector<Fault> &faults) {
    std::string text;
    for (const Fault &fault : faults) {
        text += text.empty() ? "" : "\n";
        const std::string words = oneLine(fault.text);  // what it quotes may have several
        text += fault.mark.is_null()
                    ? fmt::format("{}: {}", path.string(), words)
                    : fmt::format("{}:{}:{}: {}", path.string(), fault.mark.line + 1, fault.mark.column + 1, words);
    }
    return text;
}

std::string faultOfPart(const std::string &text) {
    if (text.size() <= kLongestPart && text.find('/') == std::string::npos) return {};
    return fmt::format("a name that files get has at most {} bytes and no '/'", kLongestPart);
}

void eachEntry(const YAML::Node &map, std::string_view what, std::vector<Fault> &faults,
               const std::function<void(const Entry &, const Entry &)> &take) {
    if (!map.IsMap()) return faults.push_back({map.Mark(), fmt::format("expected a map of {}", what)});
    std::set<std::string> seen;
    for (const auto &pair : map) {
        try {
            const Entry key{pair.first};
            if (!seen.insert(key.text()).second) key.fail(fmt::format("\"{}\" stands twice", key.text()));
            take(key, {pair.second});
        } catch (Fault &fault) {
            faults.push_back(std::move(fault));
        }
    }
}

std::string Entry::text() const {
    if (!node.IsScalar()) fail("expected a text");
    return node.Scalar();
}

std::string Entry::line() const {
    std::string line = text();
    if (line.ends_with('\n')) line.pop_back();  // of a text in the forms that begin with '|' and '>'
    const auto control = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7F'; };
    if (line.empty() || std::any_of(line.begin(), line.end(), control)) fail("expected one line of text");
    return line;
}

std::string Entry::part() const {
    std::string part = line();
    if (const std::string fault = faultOfPart(part); !fault.empty()) fail(fault);
    return part;
}

double Entry::number() const {
    const auto value = as<double>("a number");
    if (!std::isfinite(value)) fail("expected a finite number");
    return value;
}

int Entry::whole(int least, int most) const {
    const int value = as<int>("a whole number");
    if (value < least || value > most) fail(fmt::format("expected a number from {} to {}", least, most));
    return value;
}

std::chrono::milliseconds Entry::seconds() const {
    const auto value = as<double>("a number of seconds");
    if (!(value >= 0.001 && value <= 86400)) fail("a time limit lies between 0.001 and 86400 seconds");
    return std::chrono::milliseconds(std::llround(value * 1000));
}

}  // namespace station
