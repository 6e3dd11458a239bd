#include "station/page/query.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "station/base/time.h"

namespace station {
namespace {

constexpr size_t kRowsOfPage = 200;
constexpr const char *kKept[] = {"since", "until", "plan", "product", "station", "place", "cause"};

std::string percentEncoded(const std::string &text) {
    std::string encoded;
    for (const char letter : text) {
        const bool safe = std::isalnum(uint8_t(letter)) || (letter != '\0' && std::strchr("-._~:", letter));
        encoded += safe ? std::string(1, letter) : fmt::format("%{:02X}", uint8_t(letter));
    }
    return encoded;
}

// Returns a time that a person wrote as the store has it.
std::string storedTime(const std::string &text) {
    const auto time = parseTime(text);
    if (!time) throw Refusal(fmt::format("\"{}\" is not a time: {}", text, kTimeForms));
    return isoTime(*time);
}

}  // namespace

std::string urlOf(const std::string &path, const Parameters &parameters) {
    std::string url = path;
    for (const auto &[name, value] : parameters) {
        if (value.empty()) continue;
        url +=
            fmt::format("{}{}={}", url.size() == path.size() ? '?' : '&', percentEncoded(name), percentEncoded(value));
    }
    return url;
}

Query::Query(const PageRequest &request) : path(request.path) {
    for (const auto &[name, value] : request.parameters) {
        if (!value.empty()) parameters[text(name).value_or("")] = *text(value);
    }
    // The fields of the form replace the page's period.
    for (const auto &[entered, name] : {std::pair{"from", "since"}, {"to", "until"}}) {
        if (const auto field = parameters.extract(entered)) parameters[name] = field.mapped();
    }
    const auto since = parameters.emplace("since", "24h").first->second, until = (*this)["until"];
    const Period period{storedTime(since), until.empty() ? "" : storedTime(until)};
    if (!until.empty() && period.until <= period.since) throw Refusal("the period ends before it begins");
    filter = {period, (*this)["plan"], (*this)["product"], (*this)["station"], (*this)["place"], (*this)["cause"]};
    rows = kRowsOfPage;
    offset = rows * std::min(std::strtoul((*this)["skip"].c_str(), nullptr, 10) / rows, 1000000UL);
}

std::string Query::operator[](const std::string &name) const {
    const auto found = parameters.find(name);
    return found == parameters.end() ? "" : found->second;
}

Parameters Query::kept() const {
    Parameters all = parameters;
    std::erase_if(all, [](const auto &parameter) { return std::ranges::count(kKept, parameter.first) == 0; });
    return all;
}

std::string Query::link(const std::string &to, Parameters more) const {
    more.merge(kept());
    return urlOf(to, more);
}

std::string Query::changed(Parameters changes) const {
    changes.merge(Parameters(parameters));
    return urlOf(path, changes);
}

}  // namespace station
