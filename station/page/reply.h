#pragma once
// Requests of browsers, and the replies to them.

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace station {

struct PageRequest {
    std::string path;                               // decoded, without the query
    std::map<std::string, std::string> parameters;  // of the query, decoded; the first of each name
    std::string body;
};

struct PageReply {
    int status = 200;
    std::string type = "text/html; charset=utf-8";
    std::string body = {};
    std::map<std::string, std::string> headers = {};  // besides or instead of those that every reply has
};

// A reply of JSON that says why a request is not answered: {"error": "..."}.
PageReply refused(int status, const std::string &error, std::map<std::string, std::string> headers = {});

enum class RouteKind {
    kSlow,    // reads, and may take seconds
    kQuick,   // reads what is in memory
    kChange,  // changes something, by a POST of JSON; quick
    kStream,  // the server's own stream of events
};

// Answers the requests for one path. Called by several threads at once; an exception is shown as an error 500.
struct Route {
    std::string path;
    std::function<PageReply(const PageRequest &)> answer;
    RouteKind kind = RouteKind::kSlow;
};

using Routes = std::map<std::string, Route, std::less<>>;  // by path

}  // namespace station
