#pragma once
// The line: which board is at which place, and what runs there. One thread per socket lets boards in (Door), one per
// place serves them, and the calling thread watches the line as a whole.

#include <list>
#include <memory>
#include <string>
#include <vector>

#include "station/base/mutex.h"
#include "station/line/door.h"
#include "station/run/hooks.h"
#include "station/run/run.h"

namespace station {

// The question who works at the line, or at each of its places, once a shift.
struct AskWho {
    std::string prompt;                // empty: nobody is asked
    std::optional<Expression> match;   // of the answer
    Milliseconds within{8 * 3600000};  // after this time it is asked again
    bool eachPlace = false;            // each place asks for itself; otherwise one answer is for all
};

// What is done with a board.
struct Job {
    Plan plan;
    std::map<std::string, std::string> variables;  // known before the plan's own
    Hook before, after;
    AskWho who = {};
    Reference reference = {};
    int holdAfter = 0;  // hold a place after so many failed units in a row; 0: never
};

// How a line's work has ended.
struct Outcome {
    int runs = 0;        // boards that have a record, including those that never connected
    int failed = 0;      // of them, by the unit's fault
    int again = 0;       // of them, to be tested again: another's fault
    std::string counts;  // of the last board's steps
    bool interrupted = false;
    std::string unwritten;  // why records are not written; empty: all are

    // Returns "4 boards, 1 failed", and ", 1 to be tested again" when there are any.
    std::string describe() const;
};

class Line {
public:
    // With listeners on interfaces, there is a place at each of them, in the same order. With a single one on none,
    // there are any number of places there, which are told apart by their boards' addresses: all boards from one
    // address belong to one place, except those from 127.0.0.1.
    Line(std::vector<Listener> &listeners, const std::vector<Place> &places, std::shared_ptr<const Job> job,
         const Context &context);
    ~Line();

    // Runs the job on `boards` boards, which must connect within `wait`. A further board that has connected by then
    // gets its run, too. Call either run() or serve(), and only once.
    Outcome run(int boards, Milliseconds wait) UNCHECKED_THREADS;  // no other thread is there yet
    // Runs the job on every board that comes, until the stop is requested.
    Outcome serve() UNCHECKED_THREADS;  // begins and ends all other threads

    // Sets the job for boards that come from now on, and returns the one before. May be called by any thread.
    std::shared_ptr<const Job> change(std::shared_ptr<const Job> job);
    // Holds or releases a place; a held place takes no board. Returns false when there is no such place. May be called
    // by any thread.
    bool hold(int number, bool held);
    // Makes the line notice that the stop was requested. May be called by any thread.
    void wake();

private:
    struct Gate;
    struct Seat;
    struct Orders;
    struct Staff;

    bool look();
    bool lookAtRecords();
    void endThreads();
    void nameLeftOut() UNCHECKED_THREADS;  // no other thread is left by then
    void missBoards() UNCHECKED_THREADS;   // as before

    // In the thread of a socket:
    void tendGate(Gate &gate);
    Orders decide(Gate &gate);
    bool seat(const Gate &gate, Session &board) REQUIRES(mutex_);
    void watchCable(Gate &gate);

    // In the thread of a place:
    void tendSeat(Seat &seat);
    void serveBoard(Seat &seat, const Job &job);
    bool begin(const RunRecord &run);
    RunRecord runJob(Seat &seat, const Job &job, RunRecord run);
    void askWho(Seat &seat, const Job &job, RunRecord &run);
    void holdAfter(Seat &seat, const Job &job, const RunRecord &run);
    void finish(const RunRecord &run);

    bool closing() const REQUIRES(mutex_);  // no more boards are wanted
    bool mayStart(const Seat &seat) const REQUIRES(mutex_);
    Seat *seatFor(const Gate &gate, const std::string &address) REQUIRES(mutex_);

    const Context context_;
    const std::unique_ptr<Staff> staff_;
    const std::vector<Place> places_;
    std::list<Gate> gates_;  // these and the seats do not change while there are threads
    std::list<Seat> seats_;

    bool stopped_ = false;                                   // the calling thread's: it has noticed the stop
    bool endless_ = true;                                    // like the deadline, set before there are threads
    Clock::time_point deadline_ = Clock::time_point::max();  // for boards to come

    mutable Mutex mutex_;  // guards members of Gate and Seat, too
    Condition changed_;
    std::shared_ptr<const Job> job_ GUARDED_BY(mutex_);
    int wanted_ GUARDED_BY(mutex_) = 0;  // boards still to come; unused when endless
    bool closed_ GUARDED_BY(mutex_) = false;
    bool ended_ GUARDED_BY(mutex_) = false;
    size_t open_ GUARDED_BY(mutex_) = 0;   // gates
    std::string away_ GUARDED_BY(mutex_);  // why records cannot be kept now
    std::string left_ GUARDED_BY(mutex_);  // boards that had connected when the line was stopped
    Outcome outcome_ GUARDED_BY(mutex_);
};

}  // namespace station
