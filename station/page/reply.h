#pragma once
// What a browser asks for and is answered.

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace station {

struct PageRequest {
    std::string path;
    std::map<std::string, std::string> parameters;  // of the query
    std::string body;
};

struct PageReply {
    int status = 200;
    std::string type = "text/html; charset=utf-8";
    std::string body;
};

enum class RouteKind {
    kSlow,    // reads, and may take its time over it
    kQuick,   // reads what is in memory
    kChange,  // changes something, by a POST of JSON; quick
    kStream,  // the server's stream of events; nobody else answers
};

// What answers at a path. Called by several threads at once; what it throws is shown as an error 500.
struct Route {
    std::string path;
    std::function<PageReply(const PageRequest &)> answer;
    RouteKind kind = RouteKind::kSlow;
};

}  // namespace station
