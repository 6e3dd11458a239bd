#pragma once
// Prints the line's events for programs, as lines of JSON. docs/event.schema.json describes them.

#include <string>

#include "station/run/observer.h"
#include "station/run/output.h"

namespace station {

class Events : public Observer {
public:
    // `output` must outlive this.
    explicit Events(Output &output) : output_(output) {}

    // Returns the line that reports how many lines were dropped because the reader was too slow.
    static std::string linesDropped(size_t count);

    void lineStarts(const std::vector<Place> &places) override;
    void boardConnects(const RunRecord &run) override;
    void stepStarts(const RunRecord &run, size_t step) override;
    void progress(const RunRecord &run, size_t step, uint64_t sent, uint64_t total) override;
    void asks(const RunRecord &run, size_t step, const std::string &prompt) override;
    void stepEnds(const RunRecord &run, size_t step) override;
    void boardEnds(const RunRecord &run) override;
    void placeFree(const Place &place) override;
    void placeHeld(const Place &place, bool held) override;
    void strangerRefused(const std::string &peer, const std::string &why) override;
    void lineWaits(const std::string &why) override;
    void lineStops() override;
    void trouble(const std::string &text) override;

private:
    Output &output_;
};

}  // namespace station
