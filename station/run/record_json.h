#pragma once
// A record as JSON, the same in results, events and what hooks read.

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "station/run/record.h"

namespace station {

using Json = nlohmann::ordered_json;

Json toJson(const Place &place);
Json toJson(const StepResult &step);
Json toJson(const RunRecord &run);

// As text, UTF-8 whatever the board sent: other bytes become U+FFFD. Indented by `indent` spaces; -1: in one line.
std::string dump(const Json &json, int indent = -1);
std::string dump(const RunRecord &run, int indent = -1);

}  // namespace station
