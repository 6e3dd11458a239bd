#pragma once
// The present state of the line and its places, for the operator's page, and the questions that operators answer there.
// A browser that connects late gets all of it.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "station/page/shift.h"
#include "station/run/observer.h"

namespace station {

class Floor : public Observer, public Operator {
public:
    // Gives an answer to this question of the place and to no other: text that was typed for one board must not reach
    // the next. Returns false when that question is not open.
    virtual bool answer(int place, uint64_t question, const std::string &text) = 0;

    // Marks the place's verdict as seen; for place 0 removes the line's troubles. Returns false when there are none.
    virtual bool seen(int place) = 0;

    // Returns the steps of the place's last run so far, as JSON; empty when there is no such place.
    virtual std::string steps(int place) = 0;

    // Returns the picture with this SHA-256, if a question or a failure has shown it.
    virtual std::optional<Payload> picture(const std::string &sha256) = 0;

    // Returns what has changed since version `seen`, as JSON, and sets `seen` to the present version. Returns an empty
    // text when nothing has. With `seen` 0 returns everything, and the version of the page's own files.
    virtual std::string since(uint64_t &seen) = 0;
};

// Returns the floor with the counters of the shift.
std::unique_ptr<Floor> floorWith(Shift shift);

}  // namespace station
