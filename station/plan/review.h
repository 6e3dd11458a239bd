#pragma once
// Checks that need the whole plan: steps that come too late, and steps that are missing.

#include <vector>

#include "station/plan/plan.h"
#include "station/plan/yaml.h"

namespace station {

// A step and its place in the file.
struct StepSource {
    const Step &step;
    YAML::Node node;
    bool timed;  // the plan sets its timeout
};

// Adds a fault for each step that cannot work where it stands, and a warning for what is probably a mistake, such as a
// partition that is flashed and never read back.

void review(const std::vector<StepSource> &steps, std::vector<Fault> &faults, std::vector<Fault> &warnings);

}  // namespace station
