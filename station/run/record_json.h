#pragma once
// Records as JSON. Result files, the spool, archives, events and the input of hooks have the same document, which
// docs/record.schema.json describes.
//
//     const std::string text = dump(run, 2);
//     const RunRecord same = parseRecord(text);

#include <concepts>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "station/run/record.h"

namespace station {

using Json = nlohmann::ordered_json;

Json toJson(const Place &place);
Json toJson(const StepResult &step);
Json toJson(const RunRecord &run);
Json headOf(const RunRecord &run);  // the same without its steps

// Returns the JSON as text, indented by `indent` spaces, or in one line (-1). Bytes from a board that are not UTF-8
// become U+FFFD.
std::string dump(const Json &json, int indent = -1);
std::string dump(const RunRecord &run, int indent = -1);

// Returns the cause whose textOf() this is. Throws std::invalid_argument for any other text.
Cause causeOf(const std::string &text);

// Returns a whole number of a foreign document. Throws Json::type_error for other JSON, such as 1.5, and for a number
// that the type does not hold: get<int>() would take both, with any result.
template <std::integral Number>
Number whole(const Json &json);

// Reads a record. Fields that an older version left out are empty; fields that a newer one added are ignored;
// StepResult::show is not part of a record. Throws std::runtime_error when the text is not a complete record.
RunRecord parseRecord(const std::string &text);
// The same from JSON. Throws any std::exception.
RunRecord recordOf(const Json &json);

}  // namespace station
