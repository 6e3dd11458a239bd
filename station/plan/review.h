#pragma once
// What can only be seen of a plan as a whole: steps that come too late, and what is forgotten.

#include <vector>

#include "station/plan/plan.h"
#include "station/plan/yaml.h"

namespace station {

// A step and where it stands.
struct StepSource {
    const Step &step;
    YAML::Node node;
    bool timed;  // somebody chose its time limit
};

void review(const std::vector<StepSource> &steps, std::vector<Fault> &faults, std::vector<Fault> &warnings);

}  // namespace station
