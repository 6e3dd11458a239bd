#pragma once
// The words of the operator's page in its languages.

#include <map>
#include <string>
#include <vector>

namespace station {

struct PageWords {
    std::map<std::string, std::string> texts;  // by their names; the page fills in {NAME}
    std::vector<std::string> warnings;  // about a line's own file: what it lacks, has too much, or fills in otherwise
};

// Reads the words of "de", "en", "zh", or of a file NAME.json. Words that the file leaves out are English. Throws
// std::runtime_error for an unknown language and for a file that cannot be read.
PageWords readWords(const std::string &language);

}  // namespace station
