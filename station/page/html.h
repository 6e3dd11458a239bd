#pragma once
// HTML in which no text of a board, a scan or a plan is markup: only html() makes markup, of formats that stand in the
// program, and what comes in as a text comes out escaped.

#include <fmt/format.h>

#include <functional>
#include <map>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "station/store/database.h"

namespace station {

struct Html {
    std::string text;

    Html &operator+=(const Html &more) {
        text += more.text;
        return *this;
    }
};

// Control characters become visible, but for line ends and tabs.
std::string escape(const std::string &text);

namespace markup {
inline const std::string &of(const Html &html) { return html.text; }
inline std::string of(const std::string &text) { return escape(text); }
template <typename Number>
requires(std::is_arithmetic_v<Number> && !std::is_same_v<Number, char>) Number of(Number number) { return number; }
template <typename Value>
using Of = decltype(of(std::declval<const Value &>()));
}  // namespace markup

// html("<p>{}</p>", "a < b") is <p>a &lt; b</p>; an Html is taken as it is, and numbers as fmt::format() takes them.
template <typename... Values>
Html html(fmt::format_string<markup::Of<Values>...> format, const Values &...values) {
    return {fmt::format(format, markup::of(values)...)};
}

using Parameters = std::map<std::string, std::string>;

// "/runs?plan=a%26b", without the parameters that are empty.
std::string urlOf(const std::string &path, const Parameters &parameters);
Html linkTo(const std::string &path, const Parameters &parameters, const std::string &text);

// A verdict in words, with a shape of its own.
Html verdictMark(const std::string &verdict);

// A whole page: the frame with its navigation, `title` as headline, `content` below.
std::string wholePage(const std::string &title, const Html &content);

// A table of the store's. What a column means decides how its cells look: numbers to the right, times as the station's,
// runs and units as links. `columns`: other looks for some.
using Look = std::function<Html(const std::string &cell, const std::vector<Value> &row)>;
Html tableOf(const Table &table, const std::map<std::string, Look> &columns = {});

// The look of what is no number, though columns of its name are.
Html asText(const std::string &cell, const std::vector<Value> &row);

Table without(Table table, const std::string &column);

// The first row of a table, each cell with its name above it.
Html factsOf(const Table &table);

}  // namespace station
