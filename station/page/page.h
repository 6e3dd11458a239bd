#pragma once
// The page of a line, on which operators and engineers watch it and answer it in a browser.

#include <functional>
#include <memory>
#include <string>

#include "station/page/archive.h"
#include "station/page/floor.h"
#include "station/page/server.h"

namespace station {

class Page {
public:
    // Holds or releases the place with this number. Returns false when there is no such place.
    using Hold = std::function<bool(int place, bool held)>;

    // Listens, and answers after start(). `store` has the data of the engineer's pages and the earlier runs of the
    // shift; empty: there is no store. Throws ListenError, and std::runtime_error when the words of the language cannot
    // be read.
    Page(const PageSettings &settings, const std::string &store);

    // Returns the page's URL: "http://127.0.0.1:8080/".
    std::string url() const { return server_.url(); }
    // Both live as long as the page.
    Observer &observer() { return *floor_; }
    Operator &operators() { return *floor_; }

    // Starts to answer. Calls `tell`, in a thread of the page, with what a person should look at. Throws
    // std::runtime_error.
    void start(Hold hold, std::function<void(const std::string &trouble)> tell);
    // Ends all queries and connections. After it has returned, no request is answered, and `hold` and `tell` are not
    // called.
    void stop();

private:
    std::vector<Route> shows(const std::string &language);
    std::vector<Route> changes();

    Hold hold_;
    const std::unique_ptr<Floor> floor_;
    const std::shared_ptr<Archive> archive_;
    PageServer server_;
};

}  // namespace station
