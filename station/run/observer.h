#pragma once
// The interface for everything that follows a line: terminal, events, page. Called by the threads of all boards at
// once.

#include <exception>
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
};

// Forwards each call to all of them, in their order.
class Observers : public Observer {
public:
    void add(Observer &observer) { all_.push_back(&observer); }

    void lineStarts(const std::vector<Place> &places) override { tell(&Observer::lineStarts, places); }
    void boardConnects(const RunRecord &run) override { tell(&Observer::boardConnects, run); }
    void stepStarts(const RunRecord &run, size_t step) override { tell(&Observer::stepStarts, run, step); }
    void progress(const RunRecord &run, size_t step, uint64_t sent, uint64_t total) override {
        tell(&Observer::progress, run, step, sent, total);
    }
    void asks(const RunRecord &run, size_t step, const std::string &prompt) override {
        tell(&Observer::asks, run, step, prompt);
    }
    void stepEnds(const RunRecord &run, size_t step) override { tell(&Observer::stepEnds, run, step); }
    void boardEnds(const RunRecord &run) override { tell(&Observer::boardEnds, run); }
    void placeFree(const Place &place) override { tell(&Observer::placeFree, place); }
    void placeHeld(const Place &place, bool held) override { tell(&Observer::placeHeld, place, held); }
    void placeBlocked(const Place &place, const std::string &why) override {
        tell(&Observer::placeBlocked, place, why);
    }
    void placePowered(const Place &place, bool powered) override { tell(&Observer::placePowered, place, powered); }
    void strangerRefused(const std::string &peer, const std::string &why) override {
        tell(&Observer::strangerRefused, peer, why);
    }
    void lineWaits(const std::string &why) override { tell(&Observer::lineWaits, why); }
    void lineStops() override { tell(&Observer::lineStops); }
    void trouble(const std::string &text) override { tell(&Observer::trouble, text); }

private:
    template <typename Call, typename... Arguments>
    void tell(Call call, const Arguments &...arguments) {
        for (Observer *const observer : all_) {
            try {
                (observer->*call)(arguments...);
            } catch (const std::exception &) {  // a full device, say, must not end the run
            }
        }
    }

    std::vector<Observer *> all_;
};

}  // namespace station
