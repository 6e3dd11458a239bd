#pragma once
// Reads the station's YAML files, and finds all of their faults at once, each with its line and column.
//
//     const Keys<Limit> keys = {{"min", [](Limit &limit, const Entry &value) { limit.min = value.number(); }}};
//     readMap(node, keys, "in a limit", limit, faults);

#include <fmt/format.h>
#include <yaml-cpp/yaml.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace station {

// A fault at a place of a file. describe() adds the file's name.
struct Fault {
    YAML::Mark mark;
    std::string text;
};

constexpr uint64_t kLargestFile = 1 << 18;  // bytes: a hundred times what people write

// Reads the only document of a text, or of a file of at most kLargestFile bytes. Throws Fault, also for a second
// document. Sets `read` to the file's text.
YAML::Node parseDocument(const std::string &text);
YAML::Node loadDocument(const std::filesystem::path &path, std::string *read = nullptr);

// Returns a line per fault: FILE:LINE:COLUMN: what is wrong.
std::string describe(const std::filesystem::path &path, const std::vector<Fault> &faults);

// The most bytes of a part of a file's name: the names of plan, place and run together stay below a file system's 255.
constexpr size_t kLongestPart = 64;

// Returns why a text cannot be part of a file's name; empty when it can.
std::string faultOfPart(const std::string &text);

// A value of a map. Each function throws Fault when the value is not of its type.
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
    std::string part() const;  // a line that can be part of a file's name, see kLongestPart
    bool flag() const { return as<bool>("true or false"); }
    double number() const;  // a finite one
    int whole(int least, int most) const;
    std::chrono::milliseconds seconds() const;  // 0.001 to a day
};

// The keys that a map may have, each with the function that stores its value.
template <typename Target>
using Keys = std::map<std::string_view, void (*)(Target &target, const Entry &value)>;

// Calls `take` for each entry of a map. Adds the faults that it throws, and duplicate keys, to `faults`. `what`
// completes the message `expected a map of ...`.
void eachEntry(const YAML::Node &map, std::string_view what, std::vector<Fault> &faults,
               const std::function<void(const Entry &key, const Entry &value)> &take);

// Reads a map into `target`, and adds its faults to `faults`. `where` completes the message `unknown key "KEY" ...`.
template <typename Target>
void readMap(const YAML::Node &node, const Keys<Target> &keys, std::string_view where, Target &target,
             std::vector<Fault> &faults) {
    eachEntry(node, fmt::format("keys {}", where), faults, [&](const Entry &key, const Entry &value) {
        const auto read = keys.find(key.text());
        if (read == keys.end()) key.fail(fmt::format("unknown key \"{}\" {}", key.text(), where));
        read->second(target, value);
    });
}

}  // namespace station
