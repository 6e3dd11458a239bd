#include "station/plan/yaml.h"

#include <yaml-cpp/depthguard.h>
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

constexpr uint64_t kLargestFile = 1 << 18;  // bytes: a hundred times what people write
constexpr size_t kMostFaults = 50;          // that are described
constexpr size_t kLongestPart = 64;  // bytes: the names of plan, place and run together stay below a file system's 255

// Lets one document pass. The library's LoadAll() never ends on some texts: a ',' at a line's start is an empty
// document to it, again and again; and Load() ignores what follows the first.
class OneDocument : public YAML::EventHandler {
    using Mark = YAML::Mark;
    using Text = std::string;
    using Style = YAML::EmitterStyle::value;

    void OnDocumentStart(const Mark &mark) override {
        if (std::exchange(started_, true))
            throw Fault{mark, "a second document begins here, and a file has one: look for a wrong character"};
    }
    void OnDocumentEnd() override {}
    void OnNull(const Mark &, size_t) override {}
    void OnAlias(const Mark &, size_t) override {}
    void OnScalar(const Mark &, const Text &, size_t, const Text &) override {}
    void OnSequenceStart(const Mark &, const Text &, size_t, Style) override {}
    void OnSequenceEnd() override {}
    void OnMapStart(const Mark &, const Text &, size_t, Style) override {}
    void OnMapEnd() override {}

    bool started_ = false;
};

// Throws Fault for a text that an editor has saved in another encoding. UTF-16, which has NUL bytes, is read.
void needUtf8(const std::string &text) {
    const std::string clean = asUtf8(text);
    if (clean == text || text.find('\0') != std::string::npos) return;
    const auto wrong = std::mismatch(text.begin(), text.end(), clean.begin(), clean.end()).first;
    const std::string before(text.begin(), wrong);
    YAML::Mark mark;
    mark.line = static_cast<int>(std::ranges::count(before, '\n'));
    mark.column = static_cast<int>(before.size() - (before.rfind('\n') + 1));
    throw Fault{mark, "this is not UTF-8: save the file as UTF-8 in your editor"};
}

// To the library, a quote that is still open at the text's end is closed by the last line's end, but not by a comment.
std::string withComment(const std::string &text) {
    return text.substr(0, text.find_last_not_of(" \t\r\n") + 1) + "\n#";
}

template <typename T>
T readAs(const Entry &value, const char *kind) try {
    return value.node.as<T>();
} catch (const YAML::Exception &) {
    value.fail(fmt::format("expected {}", kind));
}

}  // namespace

YAML::Node loadDocument(const std::filesystem::path &path, std::string *read) try {
    const std::string text = readFile(path, kLargestFile);
    if (read != nullptr) *read = text;
    needUtf8(text);
    std::istringstream stream(withComment(text));
    YAML::Parser parser(stream);
    OneDocument one;
    while (parser.HandleNextDocument(one)) {
    }
    YAML::Node document = YAML::Load(text);
    if (document.IsNull()) throw std::runtime_error("the file is empty");
    return document;
} catch (const YAML::DeepRecursion &error) {
    throw Fault{error.mark, "brackets or indents are nested too deeply here"};
} catch (const YAML::Exception &error) {
    throw Fault{error.mark,
                fmt::format("not YAML: {}; look here and in the line above for a tab, a wrong indent, an open"
                            " quote, or a ':' without a blank after it",
                            error.msg)};
} catch (const std::runtime_error &error) {
    throw Fault{YAML::Mark::null_mark(), error.what()};
}

std::string describe(const std::filesystem::path &path, const Faults &faults) {
    std::string text;
    for (size_t i = 0; i < std::min(faults.size(), kMostFaults); ++i) {
        const auto &[mark, words] = faults[i];
        const std::string at = mark.is_null() ? "" : fmt::format("{}:{}:", mark.line + 1, mark.column + 1);
        text += fmt::format("{}{}:{} {}", i == 0 ? "" : "\n", path.string(), at, oneLine(words));
    }
    if (faults.size() <= kMostFaults) return text;
    return text + fmt::format("\n{}: {} more faults", path.string(), faults.size() - kMostFaults);
}

std::string faultOfPart(const std::string &text) {
    if (text.size() <= kLongestPart && text.find('/') == std::string::npos) return {};
    return fmt::format("a name that files get has at most {} bytes and no '/'", kLongestPart);
}

void eachEntry(const YAML::Node &map, std::string_view what, Faults &faults,
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
        } catch (const std::exception &error) {
            faults.push_back({pair.second.Mark(), error.what()});
        }
    }
}

void Entry::check(const std::string &fault) const {
    if (!fault.empty()) fail(fault);
}

std::string Entry::text() const {
    if (!node.IsScalar()) fail("expected a text");
    if (node.Tag().size() > 1) fail("a tag such as !!binary has no meaning here: remove it");
    return node.Scalar();
}

std::string Entry::line() const {
    std::string line = text();
    if (line.ends_with('\n')) line.pop_back();  // of a text in the forms that begin with '|' and '>'
    const auto control = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7F'; };
    if (line.empty() || std::ranges::any_of(line, control)) fail("expected one line of text");
    return line;
}

std::string Entry::path() const {
    if (text().starts_with('~')) fail("'~' stands for a home folder in a shell only: write the whole path");
    return line();
}

std::string Entry::part() const {
    std::string part = line();
    check(faultOfPart(part));
    return part;
}

std::string Entry::command() const {
    std::string command = text();
    if (command.empty()) fail("a command is missing");
    if (command.find('\0') != std::string::npos) fail("a command cannot have a NUL byte");
    return command;
}

int Entry::whole(int least, int most) const {
    const int value = readAs<int>(*this, "a whole number");
    if (value < least || value > most) fail(fmt::format("expected a number from {} to {}", least, most));
    return value;
}

void Entry::read(bool &to) const { to = readAs<bool>(*this, "true or false"); }

void Entry::read(double &to) const {
    to = readAs<double>(*this, "a number");
    if (!std::isfinite(to)) fail("expected a finite number");
}

void Entry::read(std::chrono::milliseconds &to) const {
    const auto value = readAs<double>(*this, "a number of seconds");
    if (!(value >= 0.001 && value <= 86400)) fail("a time limit lies between 0.001 and 86400 seconds");
    to = std::chrono::milliseconds(std::llround(value * 1000));
}

}  // namespace station
