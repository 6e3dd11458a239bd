#include "station/run/durations.h"

#include <fmt/format.h>

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace station {
namespace {

namespace fs = std::filesystem;

// Returns the cache file's path; empty when the environment names no folder.
fs::path cacheFile() {
    const char *const cache = std::getenv("XDG_CACHE_HOME"), *const home = std::getenv("HOME");
    if (cache != nullptr && *cache != '\0') return fs::path(cache) / "qcstation" / "durations";
    return home == nullptr ? fs::path() : fs::path(home) / ".cache" / "qcstation" / "durations";
}

// Returns a key with the step's number, because its title changes with every board's addresses.
std::string keyOf(const RunRecord &run, size_t step) {
    return fmt::format("{} {}/{}", run.plan, step + 1, run.steps.size());
}

}  // namespace

Durations::Durations() {
    std::ifstream file(cacheFile());
    double seconds;
    for (std::string key; file >> seconds && file.get() && std::getline(file, key);) seconds_[key] = seconds;
}

// Ignores a file that cannot be written: the next run measures again.
Durations::~Durations() {
    const fs::path path = cacheFile();
    if (path.empty()) return;
    std::error_code error;
    fs::create_directories(path.parent_path(), error);
    const fs::path fresh = fmt::format("{}.{}", path.string(), getpid());
    std::ofstream file(fresh);
    for (const auto &[key, seconds] : seconds_) file << seconds << ' ' << key << '\n';
    file.close();
    fs::rename(fresh, path, error);
}

double Durations::of(const RunRecord &run, size_t step) const {
    const auto known = seconds_.find(keyOf(run, step));
    return known == seconds_.end() ? 0 : known->second;
}

double Durations::from(const RunRecord &run, size_t step) const {
    double sum = 0;
    for (; step < run.steps.size(); ++step) {
        const double seconds = of(run, step);
        if (seconds <= 0) return 0;
        sum += seconds;
    }
    return sum;
}

void Durations::learn(const RunRecord &run, size_t step) {
    if (!run.steps[step].passed()) return;
    const double seconds = std::max(double(run.steps[step].duration.count()) / 1000, 0.0001);  // not 0: it is known
    double &known = seconds_.try_emplace(keyOf(run, step), seconds).first->second;
    known = (known + seconds) / 2;
}

double estimate(double before, double elapsed, uint64_t sent, uint64_t total) {
    if (before > elapsed || sent == 0 || sent >= total) return before;
    return elapsed * double(total) / double(sent);
}

}  // namespace station
