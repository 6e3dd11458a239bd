#pragma once
// Reading the station's YAML files so that every fault is found at once, each with its line and column.

#include <fmt/format.h>
#include <yaml-cpp/yaml.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace station {

// What is wrong at a place of a file; the file's name joins it where that is known.
struct Fault {
    YAML::Mark mark;
    std::string text;
};

constexpr uint64_t kLargestFile = 1 << 20;  // bytes: a hundred times what people write

// The file's only document. Throws Fault, also for a second document.
YAML::Node loadDocument(const std::filesystem::path &path);

// A line a fault: FILE:LINE:COLUMN: what is wrong.
std::string describe(const std::filesystem::path &path, const std::vector<Fault> &faults);

// A value of a map. What it is asked for and is not, it throws as Fault.
struct Entry {
    YAML::Node node;

    [[noreturn]] void fail(std::string text) const { throw Fault{node.Mark(), std::move(text)}; }

    template <typename T>
    T as(std::string_view kind) const {
        try {
            return node.as<T>();
        } catch (const YAML::Exception &) {
            fail(fmt::format("expected {}", kind));
        }
    }
    std::string text() const;
    std::string line() const;  // a text without control characters that is not empty
    bool flag() const { return as<bool>("true or false"); }
    double number() const;  // a finite one
    int whole(int least, int most) const;
    std::chrono::milliseconds seconds() const;  // 0.001 to a day
};

// For each key that a map may have, what is done with its value.
template <typename Target>
using Keys = std::map<std::string_view, void (*)(Target &target, const Entry &value)>;

// Reads a map into `target`, and adds what is wrong with it to `faults`. `where` ends the words `unknown key "KEY"`.
template <typename Target>
void readMap(const YAML::Node &node, const Keys<Target> &keys, std::string_view where, Target &target,
             std::vector<Fault> &faults) {
    if (!node.IsMap()) return faults.push_back({node.Mark(), fmt::format("expected a map of keys {}", where)});
    std::set<std::string> seen;
    for (const auto &pair : node) {
        try {
            const Entry name{pair.first};
            const auto read = keys.find(name.text());
            if (read == keys.end()) name.fail(fmt::format("unknown key \"{}\" {}", name.text(), where));
            if (!seen.insert(name.text()).second) name.fail(fmt::format("\"{}\" stands twice", name.text()));
            read->second(target, {pair.second});
        } catch (Fault &fault) {
            faults.push_back(std::move(fault));
        }
    }
}

}  // namespace station
