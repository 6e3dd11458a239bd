#pragma once
// The HTTP requests that the page answers, and its replies.

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace station {

struct PageRequest {
    std::string path;                               // decoded, without the query
    std::map<std::string, std::string> parameters;  // decoded; of several with one name, the first
    std::string body;
};

struct PageReply {
    int status = 200;
    std::string type = "text/html; charset=utf-8";
    std::string body = {};
    std::map<std::string, std::string> headers = {};  // in addition to those of every reply, or instead
};

// Returns a JSON reply that says why a request is not answered: {"error": "..."}.
PageReply refused(int status, const std::string &error, std::map<std::string, std::string> headers = {});

enum class RouteKind {
    kSlow,    // reads the store, which may take seconds
    kQuick,   // reads memory
    kChange,  // changes something; a POST of JSON, answered at once
    kStream,  // the server's own stream of events
};

// Answers the requests for one path. Several threads call `answer` at once. An exception becomes an error 500.
struct Route {
    std::string path;
    std::function<PageReply(const PageRequest &)> answer;
    RouteKind kind = RouteKind::kSlow;
};

using Routes = std::map<std::string, Route, std::less<>>;  // by path

}  // namespace station
