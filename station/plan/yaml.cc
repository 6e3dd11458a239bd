#include "station/plan/yaml.h"

#include <algorithm>
#include <cmath>

#include "station/base/file.h"

namespace station {

YAML::Node loadDocument(const std::filesystem::path &path) {
    try {
        const std::vector<YAML::Node> documents = YAML::LoadAll(readFile(path, kLargestFile));
        if (documents.size() > 1) throw Fault{documents[1].Mark(), "a second document: a file has one"};
        return documents.empty() ? YAML::Node() : documents.front();
    } catch (const YAML::Exception &error) {
        throw Fault{error.mark, error.msg};
    } catch (const std::runtime_error &error) {
        throw Fault{YAML::Mark::null_mark(), error.what()};
    }
}

std::string describe(const std::filesystem::path &path, const std::vector<Fault> &faults) {
    std::string text;
    for (const Fault &fault : faults) {
        text += text.empty() ? "" : "\n";
        text += fault.mark.is_null() ? fmt::format("{}: {}", path.string(), fault.text)
                                     : fmt::format("{}:{}:{}: {}", path.string(), fault.mark.line + 1,
                                                   fault.mark.column + 1, fault.text);
    }
    return text;
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
