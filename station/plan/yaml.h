#pragma once
// Reads the station's YAML files, and finds all of their faults at once, each with its line and column.
//
//     const Keys<Limit> kKeys = {"a limit", {{"min", set<&Limit::min>}, {"unit", set<&Limit::unit>}}};
//     readMap(node, kKeys, limit, faults);

#include <fmt/format.h>
#include <yaml-cpp/yaml.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace station {

// A fault at a place of a file. describe() adds the file's name.
struct Fault {
    YAML::Mark mark;
    std::string text;
};
using Faults = std::vector<Fault>;

// Reads the only document of a file of at most 256 KiB. Throws Fault, also for a second document. Sets `read` to the
// file's text.
YAML::Node loadDocument(const std::filesystem::path &path, std::string *read = nullptr);

// Returns a line per fault, at most 50: FILE:LINE:COLUMN: what is wrong.
std::string describe(const std::filesystem::path &path, const Faults &faults);

// Returns why a text cannot be part of a file's name, at most 64 bytes without '/'; empty when it can.
std::string faultOfPart(const std::string &text);

// A value of a map. Each function throws Fault when the value is not of its type.
struct Entry {
    YAML::Node node;

    [[noreturn]] void fail(std::string text) const { throw Fault{node.Mark(), std::move(text)}; }
    void check(const std::string &fault) const;  // throws it unless it is empty

    std::string text() const;
    std::string line() const;     // a text without control characters that is not empty
    std::string path() const;     // a line that is a path
    std::string part() const;     // a line that can be part of a file's name
    std::string command() const;  // a text that is not empty
    int whole(int least, int most) const;

    void read(std::string &to) const { to = line(); }
    void read(bool &to) const;
    void read(double &to) const;                     // a finite one
    void read(std::chrono::milliseconds &to) const;  // 0.001 to 86400 seconds
    template <typename T>
    void read(std::optional<T> &to) const {
        read(to.emplace());
    }
};

// Functions for Keys: they store the value in a member of the target.
template <auto Member, typename Target>
void set(Target &target, const Entry &value) {
    value.read(target.*Member);
}
template <auto Member, int Least, int Most, typename Target>
void setWhole(Target &target, const Entry &value) {
    target.*Member = value.whole(Least, Most);
}

// The keys that a map may have, with the functions that store their values, and the keys that it needs.
template <typename Target>
struct Keys {
    std::string name;  // of the map, as in: a line needs "plan"
    std::map<std::string_view, void (*)(Target &target, const Entry &value)> readers;
    std::vector<std::string> needed = {};
};

// Calls `take` for each entry of a map. Adds duplicate keys and what it throws, Fault or an exception, to `faults`.
// `what` completes the message `expected a map of ...`.
void eachEntry(const YAML::Node &map, std::string_view what, Faults &faults,
               const std::function<void(const Entry &key, const Entry &value)> &take);

// Reads a map into `target`, and adds its faults to `faults`.
template <typename Target>
void readMap(const YAML::Node &node, const Keys<Target> &keys, Target &target, Faults &faults) {
    const size_t before = faults.size();
    const std::string what = keys.needed.empty() ? "keys" : fmt::format("keys, such as {{{}: ...}}", keys.needed[0]);
    eachEntry(node, what, faults, [&](const Entry &key, const Entry &value) {
        const auto reader = keys.readers.find(key.text());
        if (reader == keys.readers.end()) key.fail(fmt::format("unknown key \"{}\" in {}", key.text(), keys.name));
        reader->second(target, value);
    });
    if (faults.size() != before) return;  // a key may only be misspelled
    for (const std::string &key : keys.needed) {
        if (!node[key]) faults.push_back({node.Mark(), fmt::format("{} needs \"{}\"", keys.name, key)});
    }
}

}  // namespace station
