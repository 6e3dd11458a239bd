#pragma once
// The page of a line: what operators and engineers see of it in a browser, and what they do there.

#include <functional>
#include <string>

#include "station/page/floor.h"
#include "station/page/scanner.h"
#include "station/page/server.h"

namespace station {

class Page {
public:
    // Has a place hold or release, by its number; false: there is no such place.
    using Hold = std::function<bool(int place, bool held)>;

    // Listens. `store`: what remembers the shift's runs; empty: nothing does. Throws ListenError.
    Page(const PageSettings &settings, const std::string &store);

    // Where a browser on this machine, or on one that reaches it, finds the page.
    std::string url() const;
    Observer &observer() { return floor_; }
    Operator &operators() { return scanner_; }

    // `tell` is told, by the page's thread, what a person should look at.
    void start(Hold hold, std::function<void(const std::string &trouble)> tell);
    // Nobody is answered, and nothing held, any more when it returns.
    void stop() { server_.stop(); }

private:
    PageReply scan(const PageRequest &request);
    PageReply line();
    PageReply steps(const PageRequest &request);
    PageReply seen(const PageRequest &request);
    PageReply hold(const PageRequest &request);

    const std::string address_;
    Hold hold_;
    Floor floor_;
    Scanner scanner_;
    PageServer server_;
};

}  // namespace station
