#pragma once
// Prints one line per event, for people.

#include <string>

#include "station/base/mutex.h"
#include "station/run/observer.h"
#include "station/run/output.h"

namespace station {

// On a terminal it also shows the progress of a single board, and asks the operator, one question at a time. The
// terminal itself echoes and edits what is typed.
class Terminal : public Observer, public Operator {
public:
    // `boards`: how many will be served, 0 for no end. `output` must outlive this.
    Terminal(Output &output, int boards);

    void boardConnects(const RunRecord &run) override;
    void stepStarts(const RunRecord &run, size_t step) override;
    void progress(const RunRecord &run, size_t step, uint64_t sent, uint64_t total) override;
    void asks(const RunRecord &run, size_t step, const std::string &prompt) override;
    void stepEnds(const RunRecord &run, size_t step) override;
    void boardEnds(const RunRecord &run) override;
    void placeHeld(const Place &place, bool held) override;
    void strangerRefused(const std::string &peer, const std::string &why) override;
    void lineWaits(const std::string &why) override;
    void lineStops() override;
    void trouble(const std::string &text) override;

    // After a wrong answer, asks the same place again before any other.
    std::string ask(const RunRecord &run, size_t step, const std::string &prompt, const std::string &problem,
                    Clock::time_point deadline, const Needless &needless) override;

private:
    void print(const RunRecord &run, const std::string &text);
    void print(const std::string &lines);
    void show(const std::string &text);  // prints a line that the next one replaces
    std::string readAnswer(Clock::time_point deadline, const Needless &needless);
    void release(int place);

    Output &output_;
    const int boards_;
    const bool watched_;  // standard output is a terminal
    Mutex mutex_;
    Condition free_;
    int asking_ GUARDED_BY(mutex_) = 0;      // the number of the place that is asked; 0: none
    std::string prompt_ GUARDED_BY(mutex_);  // of the open question
};

}  // namespace station
