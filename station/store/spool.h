#pragma once
// What a process could not write to the store yet, on this machine's disk: a line each in a file that is the process's
// own for as long as it lives. What a dead one left behind is found by the next.

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace station {

// Every call throws StoreError when the disk does not do what it shall.
class Spool {
public:
    // Takes the file, or makes it.
    explicit Spool(const std::filesystem::path &path);
    ~Spool();
    Spool(const Spool &) = delete;
    Spool &operator=(const Spool &) = delete;

    bool mine() const { return mine_; }               // no living process has it but this one
    std::string key() const { return path_.stem(); }  // no other file on any machine has it
    const std::filesystem::path &path() const { return path_; }

    // Whole lines that are kept, and where they end.
    std::vector<std::string> lines(off_t &end) const;
    // Returns when the lines are on the disk; when it throws, none of them is.
    void append(const std::vector<std::string> &lines);
    // Forgets everything, unless more than up to `end` has been kept meanwhile.
    void clear(off_t end);

private:
    void endTornLine() const;
    void reserve() const;

    std::filesystem::path path_;
    int file_;
    bool mine_;
    mutable std::mutex mutex_;
};

// All of the folder that no living process has; a new one when there is none.
std::vector<std::unique_ptr<Spool>> takeSpools(const std::filesystem::path &folder);

}  // namespace station
