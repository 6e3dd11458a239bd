#pragma once
// The line: which board is at which place, and what is run there. One thread looks after places and newcomers, one a
// board serves it.

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "station/line/crew.h"
#include "station/line/doorway.h"
#include "station/line/seat.h"
#include "station/run/hooks.h"

namespace station {

// What is done with a board.
struct Job {
    Plan plan;
    std::map<std::string, std::string> variables;  // known before the plan's own
    Hook before, after;
};

// How a line's work has ended.
struct Outcome {
    int runs = 0;        // boards that have a record, those that never connected included
    int failed = 0;      // of them
    std::string counts;  // of the last board's steps
    bool interrupted = false;
    std::string unwritten;  // why records are not written; empty: all are
};

class Line {
public:
    // A place at each of the listener's sockets, named as given; or, when it has one socket and `cabled` is false, any
    // number of places there, which are told apart by their boards' addresses: all that come from one are one place's.
    // Only 127.0.0.1 tells nothing, as every emulated board comes from there.
    Line(Listener &listener, const std::vector<Place> &places, bool cabled, std::shared_ptr<const Job> job,
         const Context &context);

    // Runs the job once at so many places, which have `wait` to be connected to. Nothing of what a board sends is lost:
    // one that has connected beyond that number gets its run too.
    Outcome run(int boards, Milliseconds wait);
    // Runs it on every board that comes, until the stop is requested.
    Outcome serve();

    // From any thread: what the boards get that come from now on.
    void change(std::shared_ptr<const Job> job);
    // From any thread: the place with this number takes no board until it is released. False: there is no such place.
    bool hold(int number, bool held);
    // From any thread: has the line look at the stop.
    void wake() const;

private:
    struct Wish {  // how the line is to end
        bool endless = true;
        int boards = 0;  // still to come
        Clock::time_point deadline;
    };

    Outcome work();
    bool over();
    void look();  // after records and cables
    void tellWhyItWaits();
    void tendGates();
    void await() const;  // the next thing to happen
    void place(Arrival arrival);
    Seat *seatFor(const Arrival &arrival);
    Seat *vacantSeat();
    bool mayStart(const Seat &seat) const;
    bool held(const Seat &seat) const;
    void startWaiting();
    bool start(Seat &seat);
    void adoptJob();
    void collectEnded();
    void watchCables();
    void missBoards();
    void nameLeftOut();

    // In the board's own thread:
    void serveBoard(Seat &seat, const Job &job);
    bool begin(const RunRecord &run);
    RunRecord runJob(Seat &seat, const Job &job, RunRecord run);
    void finish(const RunRecord &run);

    Listener &listener_;
    Context context_;
    Doorway door_;
    bool cabled_;
    std::list<Seat> seats_;
    std::deque<Arrival> parked_;  // boards for which there is no seat yet
    Wish wish_;
    bool closing_ = false;      // no more boards are wanted
    bool shorthanded_ = false;  // no thread could be made for a board that waits
    std::string away_;          // why records cannot be kept now
    std::string told_;          // why no new board is taken, as the observer knows it
    Clock::time_point asked_;   // when that was looked at
    Socket wakeup_;

    const std::vector<Place> places_;
    mutable std::mutex mutex_;  // of what follows
    std::set<int> held_;        // places, by number
    std::shared_ptr<const Job> job_;
    std::vector<Seat *> ended_;
    Outcome outcome_;

    Crew crew_;  // at the end, so that its threads have ended before anything that they use
};

}  // namespace station
