#pragma once
// The only one who writes runs to the store: a thread of its own with the process's one connection. What comes at the
// same time shares a transaction. While the store is away, what may wait is kept in the spool.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "station/store/database.h"
#include "station/store/spool.h"

namespace station {

// One of kStatements (writer.cc) by its name. Each may be written again at any later time, and changes nothing then.
struct Statement {
    std::string name;
    std::vector<Value> values;
};
using Statements = std::vector<Statement>;

void execute(Database &database, const Statement &statement);

class Writer {
public:
    using Trouble = std::function<void(const std::string &)>;

    // `spools`: its own, then those that dead processes have left. Tries to reach the store before it returns.
    Writer(std::vector<std::unique_ptr<Spool>> spools, std::string store, std::string station, Trouble trouble);
    // Writes what waits, or keeps it.
    ~Writer();
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;

    std::string away() const;  // why nothing can be written now; empty: it can
    std::string key() const { return spools_.front()->key(); }

    void later(Statements statements);  // returns at once
    void keep(Statements statements);   // returns when they are in the store or in the spool; throws StoreError
    void store(Statements statements);  // returns when they are in the store; throws StoreError
    // The same for work that needs answers. A Refusal that it throws must leave nothing changed; it is passed on.
    void store(std::function<void(Database &)> work);

private:
    using Clock = std::chrono::steady_clock;

    struct Job {
        Statements statements;
        std::function<void(Database &)> work;
        bool mayWait;  // in the spool
        std::atomic<bool> written = false;
        std::promise<void> promise{};
        std::shared_future<void> done = promise.get_future().share();

        explicit Job(Statements all, bool spooled = true) : statements(std::move(all)), mayWait(spooled) {}
        explicit Job(std::function<void(Database &)> what) : work(std::move(what)), mayWait(false) {}
        void apply(Database &database) const;
        std::string line() const;
    };
    using Jobs = std::vector<std::shared_ptr<Job>>;

    void submit(const std::shared_ptr<Job> &job);
    void wait(const Job &job);
    void loop();
    void round(const Jobs &jobs);
    void attempt(const Jobs &jobs);
    void connect();
    void writeTogether(const Jobs &jobs);
    void writeAlone(Job &job);
    void putAside(const std::string &line, const std::string &why);
    void keepAll(const Jobs &jobs, const std::string &why);
    void spool(const Jobs &jobs);
    Jobs spooled(std::vector<off_t> &ends, std::vector<std::string> &torn);
    void setAway(const std::string &why);

    const std::string store_, station_;
    const Trouble trouble_;
    std::vector<std::unique_ptr<Spool>> spools_;  // its own, and until the first success those of dead processes

    // Of the thread alone.
    std::unique_ptr<Database> database_;
    bool recovered_ = false;
    Clock::time_point retry_{};
    Jobs unkept_;  // not even the spool took them

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    Jobs queue_, inHand_;
    std::string away_ = "the store was not reached yet";
    Clock::time_point busySince_ = Clock::time_point::max();
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace station
