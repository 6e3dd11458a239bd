#pragma once
// The page of a line: what operators and engineers see of it in a browser.

#include <string>

#include "station/page/server.h"

namespace station {

class Page {
public:
    // Listens. Throws ListenError. `store`: what the engineer's pages read; empty: none.
    Page(const PageSettings &settings, const std::string &store);

    // Where a browser on this machine, or on one that reaches it, finds the page.
    std::string url() const;
    void start() { server_.start(); }
    void stop() { server_.stop(); }

private:
    const std::string address_;
    PageServer server_;
};

}  // namespace station
