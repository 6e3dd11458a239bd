#include "station/page/words.h"

#include <fmt/ranges.h>
#include <re2/re2.h>

#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>

#include "station/base/file.h"
#include "station/page/static_files.h"

namespace station {
namespace {

constexpr size_t kLongestWords = 65536;  // bytes of a file

using Texts = std::map<std::string, std::string>;

Texts textsIn(std::string_view json) try {
    return nlohmann::json::parse(json).get<Texts>();
} catch (const nlohmann::json::exception &error) {
    throw std::runtime_error(fmt::format("expected a file of words in JSON: {}", error.what()));
}

Texts textsOf(const std::string &language) {
    if (const auto ours = staticFile(fmt::format("words.{}.json", language))) return textsIn(*ours);
    if (language.ends_with(".json")) return textsIn(readFile(language, kLongestWords));
    throw std::runtime_error("expected de, en, zh, or a file NAME.json");
}

// Returns the names in braces.
std::set<std::string> valuesIn(const std::string &text) {
    static const re2::RE2 kValue("(\\{\\w+\\})");
    std::set<std::string> values;
    std::string value;
    for (re2::StringPiece rest(text); re2::RE2::FindAndConsume(&rest, kValue, &value);) values.insert(value);
    return values;
}

// Returns what differs from the English texts, although the page can be shown.
std::vector<std::string> reviewed(const Texts &english, const Texts &theirs) {
    std::vector<std::string> missing, surplus, warnings;
    for (const auto &[name, text] : theirs) {
        if (!english.contains(name)) surplus.push_back(name);
    }
    for (const auto &[name, text] : english) {
        const auto found = theirs.find(name);
        if (found == theirs.end()) {
            missing.push_back(name);
        } else if (const auto values = valuesIn(text); valuesIn(found->second) != values) {
            warnings.push_back(
                fmt::format("\"{}\" must have {}, as the English text", name,
                            values.empty() ? "nothing in braces" : fmt::to_string(fmt::join(values, ", "))));
        }
    }
    if (!missing.empty())
        warnings.push_back(fmt::format("English, because they are missing: {}", fmt::join(missing, ", ")));
    if (!surplus.empty()) warnings.push_back(fmt::format("not used by the page: {}", fmt::join(surplus, ", ")));
    return warnings;
}

}  // namespace

PageWords readWords(const std::string &language) try {
    PageWords words{textsOf("en"), {}};
    Texts theirs = textsOf(language);
    words.warnings = reviewed(words.texts, theirs);
    theirs.merge(words.texts);
    words.texts = std::move(theirs);
    return words;
} catch (const std::runtime_error &error) {
    throw std::runtime_error(fmt::format("language {}: {}", language, error.what()));
}

}  // namespace station
