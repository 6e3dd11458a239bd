#pragma once
// A record as JSON: one document, the same in result files, the spool, archives, events and on the input of hooks.
// docs/record.schema.json describes it.
//
//     const std::string text = dump(run, 2);
//     const RunRecord same = parseRecord(text);

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "station/run/record.h"

namespace station {

using Json = nlohmann::ordered_json;

Json toJson(const Place &place);
Json toJson(const StepResult &step);
Json toJson(const RunRecord &run);

// Returns the text of the JSON, UTF-8 whatever the board sent: other bytes become U+FFFD. Indented by `indent` spaces;
// -1: in one line.
std::string dump(const Json &json, int indent = -1);
std::string dump(const RunRecord &run, int indent = -1);

// Returns the cause that textOf() writes so. Throws std::invalid_argument.
Cause causeOf(const std::string &text);

// Returns the record of the text. What an older version left out is empty, and what a newer one added is ignored;
// StepResult::show is not part of a record. Throws std::runtime_error when the text is not a whole record.
RunRecord parseRecord(const std::string &text);

}  // namespace station
