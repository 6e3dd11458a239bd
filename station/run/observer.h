#pragma once
// The interfaces between a line and its surroundings: what follows it (terminal, events, page), and who answers its
// questions (at the terminal or on the page). The threads of all boards call both at once.

#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "station/run/record.h"

namespace station {

// `step` counts from 0 in the run's steps, which are all there when the board connects.
class Observer {
public:
    virtual ~Observer() = default;
    // The line is open; anonymous places join it as boards come.
    virtual void lineStarts(const std::vector<Place> &) {}
    virtual void boardConnects(const RunRecord &) {}
    virtual void stepStarts(const RunRecord &, size_t /*step*/) {}
    // A payload is being sent. Called at most ten times a second, and when all is sent.
    virtual void progress(const RunRecord &, size_t /*step*/, uint64_t /*sent*/, uint64_t /*total*/) {}
    // The step waits for the operator's answer to the prompt.
    virtual void asks(const RunRecord &, size_t /*step*/, const std::string & /*prompt*/) {}
    virtual void stepEnds(const RunRecord &, size_t /*step*/) {}
    // The verdict is final and recorded. A place where nobody connected ends with an empty peer.
    virtual void boardEnds(const RunRecord &) {}
    // The board whose verdict the place showed has been taken away.
    virtual void placeFree(const Place &) {}
    // The place is held and takes no board, or it is released.
    virtual void placeHeld(const Place &, bool /*held*/) {}
    // The place can take no board for this reason, in words; empty: it can again.
    virtual void placeBlocked(const Place &place, const std::string &why) {
        trouble("place " + place.name + ": " + (why.empty() ? "takes boards again" : why));
    }
    // Something that is switched on was cabled to the place; or it went away. Places that have an interface only.
    virtual void placePowered(const Place &, bool /*powered*/) {}
    // Something connected that is not a board, or for which there is no place.
    virtual void strangerRefused(const std::string & /*peer*/, const std::string & /*why*/) {}
    // No new board is taken, for this reason; empty: boards are taken again.
    virtual void lineWaits(const std::string & /*why*/) {}
    // The line stops: no more boards are taken, and running steps end first.
    virtual void lineStops() {}
    // What a person should look at, in words.
    virtual void trouble(const std::string &) {}
    // The troubles whose text begins like this are over.
    virtual void mended(const std::string &) {}
};

// Some observers: tell(&Observer::stepStarts, run, step) calls each of them, in their order.
class Observers {
public:
    Observers() = default;
    // cppcheck-suppress noExplicitConstructor ; one observer may stand where several do
    Observers(Observer &only) : all_{&only} {}
    void add(Observer &observer) { all_.push_back(&observer); }

    template <typename Call, typename... Arguments>
    void tell(Call call, const Arguments &...arguments) const {
        for (Observer *const observer : all_) {
            try {
                (observer->*call)(arguments...);
            } catch (const std::exception &) {  // a full device, say, must not end the run
            }
        }
    }

private:
    std::vector<Observer *> all_;
};

// Returns why no answer is needed any more; empty: one is. Called several times a second.
using Needless = std::function<std::string()>;

// Nobody answered in time, or no answer is needed any more. The text says which.
struct NoAnswer : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Answers a plan's questions.
class Operator {
public:
    virtual ~Operator() = default;
    // Returns the answer to the prompt of a run's step. `problem` says what was wrong with the answer before; empty at
    // first. Throws NoAnswer; std::runtime_error when there is no way to ask.
    virtual std::string ask(const RunRecord &run, size_t step, const std::string &prompt, const std::string &problem,
                            Clock::time_point deadline, const Needless &needless) = 0;
};

}  // namespace station
