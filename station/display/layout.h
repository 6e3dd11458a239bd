#pragma once
// The live part of the terminal as lines of text: a row a place, or a summary when the places are more than the rows.

#include <cstddef>
#include <string>
#include <vector>

namespace station {

enum class Stage { kWaiting, kRunning, kAsking, kPassed, kFailed };

struct Row {
    std::string place;
    Stage stage = Stage::kWaiting;
    std::string unit;  // empty: nobody said
    std::string text;  // what is done, asked, or wrong
    std::string hint;  // of the step that failed
    size_t step = 0, steps = 0;
    double seconds = 0;    // since the board connected; the whole run's when it has ended
    double elapsed = 0;    // seconds since the step started
    double fraction = -1;  // of the step, 0 to 1; negative: not known
    double left = 0;       // seconds until the step's end, when the fraction is known
};

struct Screen {
    size_t columns = 80, rows = 24;
    bool coloured = true;
};

// At most `screen.rows` lines of at most `screen.columns` characters, escape sequences apart. `foot` stands
// below the rows.
std::vector<std::string> layOut(const std::vector<Row> &rows, const Screen &screen,
                                const std::vector<std::string> &foot);

// The text without its middle, when it has more characters than columns.
std::string withoutMiddle(const std::string &text, size_t columns);

}  // namespace station
