// qcstation: the test station of the factory line on the command line.

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <system_error>

#include "station/cli/commands.h"
#include "station/plan/plan.h"
#include "station/run/output.h"
#include "station/run/records.h"
#include "station/store/database.h"
#include "station/wire/listener.h"

namespace {

template <typename... Errors>
bool isOneOf(const std::exception &error) {
    return (... || (dynamic_cast<const Errors *>(&error) != nullptr));
}

int exitCodeOf(const std::exception &error) {
    using namespace station;
    if (isOneOf<PlanError, Refusal>(error)) return kWrongInput;
    if (isOneOf<ListenError>(error)) return kCannotListen;
    if (isOneOf<RecordsError, std::system_error>(error)) return kCannotWrite;
    return kFailed;
}

// Opens the standard descriptors that the caller has closed. What is printed would otherwise go to a board or the
// store, whose sockets would get their numbers.
void openStandardDescriptors() {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) < 0) open("/dev/null", O_RDWR);  // gets the lowest free number
    }
}

}  // namespace

int main(int argc, char **argv) try {
    openStandardDescriptors();
    CLI::App app("The test station of the factory line: accepts boards and runs a plan on each.", "qcstation");
    app.require_subcommand(1);
    app.set_version_flag("--version", "qcstation " VERSION, "Print the version");
    int status = station::kPassed;
    station::addRun(app, status);
    station::addServe(app, status);
    station::addDiscover(app);
    station::addCheck(app, status);
    station::addInit(app);
    station::addStoreCommands(app, status);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        if (app.exit(error) != 0) return station::kWrongInput;
    }
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
    std::fprintf(stderr, "qcstation: standard output: %s\n", strerror(errno));
    return station::kCannotWrite;
} catch (const std::exception &error) {
    // A plan's fault begins with its file.
    const bool named = isOneOf<station::PlanError>(error);
    station::printError(fmt::format("{}{}\n", named ? "" : "qcstation: ", error.what()));
    return exitCodeOf(error);
}
