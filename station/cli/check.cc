#include <arpa/inet.h>
#include <fmt/format.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <re2/re2.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>

#include "station/cli/commands.h"
#include "station/cli/service.h"
#include "station/page/words.h"
#include "station/store/pool.h"
#include "station/store/sql.h"
#include "station/wire/listener.h"

namespace station {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kForStore{5};  // to answer

// The state of a line's check.
struct Check {
    std::string path;
    LineFile line;
    Table pools = {};                      // of the store, as listPools() returns it; empty: not known
    bool served = false;                   // something listens at the line's address already
    bool wrong = false;                    // the line's file or its plan has a fault: to wait does not help
    std::map<std::string, int> told = {};  // how many of each grade

    // With a warning the line works, but not as it should; a fault keeps it from working.
    void fine(const std::string &about, const std::string &text) { tell("ok", about, text); }
    void warn(const std::string &about, const std::string &text) { tell("warning", about, text); }
    void fault(const std::string &about, const std::string &text) { tell("fault", about, text); }
    void tell(const char *grade, const std::string &about, const std::string &text) {
        ++told[grade];
        fmt::print("{:8} {:16} {}\n", grade, about, text);
    }
    std::string count(const char *grade) const {
        const auto found = told.find(grade);
        if (found == told.end()) return fmt::format("no {}s", grade);
        return fmt::format("{} {}{}", found->second, grade, found->second == 1 ? "" : "s");
    }
};

// ---- the network

std::set<std::string> interfacesWith(const std::string &address) {
    std::set<std::string> names;
    ifaddrs *all = nullptr;
    if (getifaddrs(&all) != 0) return names;
    for (const ifaddrs *each = all; each != nullptr; each = each->ifa_next) {
        if (each->ifa_addr == nullptr || each->ifa_addr->sa_family != AF_INET) continue;
        const in_addr found = reinterpret_cast<const sockaddr_in *>(each->ifa_addr)->sin_addr;
        if (found.s_addr == inet_addr(address.c_str())) names.insert(each->ifa_name);
    }
    freeifaddrs(all);
    return names;
}

// Reports whether the station could listen there. An address that a station of this line uses already is not a fault.
bool checkAddress(Check &check, const std::string &about, const std::string &address, int port,
                  const std::string &interface = {}) {
    const int error = tryAddress(address, static_cast<uint16_t>(port), interface);
    const std::string where = fmt::format("{}:{}{}{}", address, port, interface.empty() ? "" : " on ", interface);
    if (error == 0) {
        check.fine(about, where + " is free");
    } else if (error == EADDRINUSE && (check.served || about != "page")) {
        check.served = true;
        check.fine(about, where + " is in use: by this line's station, or: ss -ltnp shows the program");
    } else {
        check.fault(about, fmt::format("{} cannot be used: {}", where, hintFor(error, address, interface)));
    }
    return error == 0 || error == EADDRINUSE;
}

// A place whose adapter is unplugged does not keep the others from working.
void checkPlaces(Check &check) {
    const LineFile &line = check.line;
    const std::set<std::string> addressed = interfacesWith(line.address);
    bool works = line.cables.empty() && checkAddress(check, "listen", line.address, line.port);
    for (size_t i = 0; i < line.cables.size(); ++i) {
        const std::string &interface = line.cables[i], about = "place " + line.places[i].name;
        if (addressed.contains(interface)) {
            works |= checkAddress(check, about, line.address, line.port, interface);
        } else {
            const int error = if_nametoindex(interface.c_str()) != 0 ? EADDRNOTAVAIL : ENODEV;
            check.warn(about, hintFor(error, line.address, interface));
        }
    }
    if (!works) check.fault("places", "no place can take a board");
}

int filterOf(const std::string &interface) {
    int value = 0;
    std::ifstream("/proc/sys/net/ipv4/conf/" + interface + "/rp_filter") >> value;
    return value;
}

// With rp_filter 1, the kernel drops packets of 192.168.1.1 from every card but the first as forged.
void checkRoutes(Check &check) {
    if (check.line.cables.size() < 2) return;
    for (const std::string &interface : check.line.cables) {
        if (std::max(filterOf("all"), filterOf(interface)) != 1) continue;
        return check.fault("kernel", fmt::format("rp_filter is 1 for {}: only the boards of one card would be served. "
                                                 "Set it: sysctl -w net.ipv4.conf.all.rp_filter=2",
                                                 interface));
    }
    check.fine("kernel", "boards with the same address are told apart by their cards");
}

void checkPage(Check &check) try {
    if (!check.line.page) return;
    const PageSettings &page = *check.line.page;
    checkAddress(check, "page", page.address, page.port);
    for (const std::string &text : readWords(page.language).warnings) check.warn("page", page.language + ": " + text);
} catch (const std::runtime_error &error) {
    check.fault("page", error.what());
}

// ---- the store

// Returns what the database denies to this user, and how to mend it; empty: nothing.
std::string denialOf(Database &database) {
    if (!database.shared()) return {};
    const Table denied = database.ask(sqlOf(true, "denied"));
    if (!denied.rows.at(0)[1]) return {};
    return fmt::format("the role {0} may not write {1}. Their owner mends that: "
                       "GRANT ALL ON ALL TABLES IN SCHEMA public TO {0}",
                       *denied.rows[0][0], *denied.rows[0][1]);
}

void checkStore(Check &check) try {
    const std::string &store = check.line.store, name = shownName(store);
    if (store.empty()) return;
    std::error_code denied;
    if (store.find("://") == std::string::npos && !fs::exists(store, denied) && !denied)
        return check.warn("store", store + " is not there yet: qcstation init makes it");
    const auto database = openStore(store, Database::Missing::kIsIgnored);
    database->onlyAsk(kForStore);
    if (const std::string why = denialOf(*database); !why.empty()) return check.fault("store", name + ": " + why);
    const int version = database->version();
    if (version > Database::kNewest)
        return check.fault("store", name + " was made by a newer program: update this one");
    if (version == 0) return check.warn("store", name + " has no tables yet: qcstation init makes them");
    const std::string is = fmt::format("{}, version {}", name, version);
    if (version == Database::kNewest) {
        check.pools = listPools(*database);
        return check.fine("store", is);
    }
    check.warn("store", fmt::format("{}: the station brings it to version {} when it starts. Stop all others before",
                                    is, Database::kNewest));
} catch (const StoreError &error) {
    check.fault("store", error.what());
}

// Reports how many units the pools are enough for from which the plan takes.
void checkPools(Check &check) {
    std::map<std::string, int> taken;
    for (const Step &step : check.line.plan.steps) {
        for (const Taken &each : step.takes) taken[each.pool] = each.count;
    }
    const Table &pools = check.pools;
    for (const auto &row : pools.rows) {
        const auto take = taken.find(*row[0]);
        if (take == taken.end()) continue;
        const auto cell = [&](const char *name) {
            const auto at = std::find(pools.columns.begin(), pools.columns.end(), name) - pools.columns.begin();
            return row.at(size_t(at)).value_or("");
        };
        const bool same = cell("block") == std::to_string(take->second);
        const auto units = same ? std::stoll(cell("units")) : std::stoll(cell("left")) / take->second;
        const std::string about = "pool " + take->first,
                          text = fmt::format("{}, enough for {} units", cell("kind"), units);
        if (units > 0 && cell("warning").empty()) {
            check.fine(about, text);
        } else {
            check.warn(about, text + ": fill it with qcstation pool add, or pool import");
        }
    }
}

// ---- the plan and its commands

void eachLine(const std::string &text, const std::function<void(const std::string &)> &tell) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) tell(line);
}

void checkPlan(Check &check) try {
    check.line = loadLine(check.path, poolNames);
    const Plan &plan = check.line.plan;
    eachLine(plan.warnings, [&](const std::string &text) { check.warn("plan", text); });
    if (const std::string asker = askerOf(check.line); !asker.empty() && !check.line.page)
        check.warn("page", asker + " asks: without a page only a station on a terminal can serve the line");
    check.fine("plan", fmt::format("{}: {} steps, {} files", plan.name, plan.steps.size(), plan.files.size()));
} catch (const StoreError &) {
    check.warn("plan", "is not checked, because it may take from pools, and the store does not name them");
} catch (const PlanError &error) {
    check.wrong = true;
    eachLine(error.what(), [&](const std::string &text) { check.fault("plan", text); });
}

// Runs a test of the shell on a text, in a folder. Returns true when it succeeds.
bool shell(const char *test, const std::string &text, const fs::path &folder) {
    setenv("TEXT", text.c_str(), 1);
    setenv("FOLDER", folder.empty() ? "." : folder.c_str(), 1);
    return std::system(fmt::format("exec > /dev/null 2>&1; cd \"$FOLDER\" && {}", test).c_str()) == 0;
}

// Lets the shell parse the command and look for the program that it begins with. Runs nothing of it.
void checkCommand(Check &check, const std::string &about, const std::string &command, const fs::path &folder) {
    static const re2::RE2 kProgram("\\s*([\\w./+-]+)(?:[\\s;|&<>](?s:.*))?");
    if (command.empty()) return;
    if (!shell("sh -n -c \"$TEXT\"", command, folder)) {
        check.wrong = true;
        return check.fault(about, "the shell does not understand: " + command);
    }
    std::string program;
    if (re2::RE2::FullMatch(command, kProgram, &program) &&
        !shell("case $TEXT in */*) [ -f \"$TEXT\" ] && [ -x \"$TEXT\" ];; *) command -v \"$TEXT\";; esac", program,
               folder)) {
        return check.fault(
            about, fmt::format("{} cannot run {}: is it there, and is it a program (chmod +x)?", userName(), program));
    }
    check.fine(about, command);
}

void checkCommands(Check &check) {
    const LineFile &line = check.line;
    checkCommand(check, "before", line.before.command, line.before.folder);
    checkCommand(check, "after", line.after.command, line.after.folder);
    for (size_t i = 0; i < line.plan.steps.size(); ++i) {
        checkCommand(check, fmt::format("step {}", i + 1), line.plan.steps[i].run, line.plan.folder);
    }
}

// ---- the folders

// Returns why this user cannot write to `path`, which is there, or make it in `there`; and how to mend it. Empty: he
// can.
std::string denial(const fs::path &path, const fs::path &there) {
    std::error_code error;
    const bool folder = fs::is_directory(there, error);
    if (access(there.c_str(), W_OK | (folder ? X_OK : R_OK)) == 0 || errno == ENOENT) return {};
    if (errno == EROFS) return there.string() + " is read-only here: the service may write below /var/lib/qcstation";
    const std::string user = userName();
    if (path == there) return fmt::format("{0} cannot write {1}. As root: chown {0} \"{1}\"", user, path.string());
    if (access(there.c_str(), X_OK) != 0)
        return fmt::format("{} may not enter {}: choose a folder below /var/lib/qcstation", user, there.string());
    return fmt::format("{} cannot make {}: qcstation init, run as root, makes it", user, path.string());
}

void checkFolder(Check &check, const Room &room) {
    const std::string about = "folder " + room.about;
    std::error_code error;
    fs::path there = room.folder;
    while (!fs::exists(there, error) && there.has_relative_path()) there = there.parent_path();
    if (!fs::is_directory(there)) return check.fault(about, there.string() + " is not a folder");
    std::string why = denial(room.folder, there);
    for (const fs::path &file : room.files) {
        if (why.empty()) why = denial(file, file);
    }
    if (!why.empty()) return check.fault(about, why);
    check.fine(about, room.folder.string() + (there == room.folder ? " can be written" : " can be made"));
}

void checkFolders(Check &check) {
    for (const Room &room : roomsOf(check.line)) checkFolder(check, room);
}

constexpr void (*kChecks[])(Check &check) = {checkPlaces, checkRoutes, checkPage,  checkFolders,
                                             checkStore,  checkPlan,   checkPools, checkCommands};

int checkLine(const std::string &path, const std::string &user) {
    becomeUser(user);
    Check check{.path = path, .line = readLine(path)};
    fmt::print("line {}, checked as the user {}\n", path, userName());
    for (const auto each : kChecks) each(check);
    fmt::print("{}, {}\n", check.count("fault"), check.count("warning"));
    if (!check.told.contains("fault")) return kPassed;
    return check.wrong ? kWrongInput : kFailed;
}

void checkPlanFile(const std::string &path, const std::string &files, const std::string &store) {
    const Plan plan = loadPlan(path, files, {{}, poolNames(store)});
    if (!plan.warnings.empty()) fmt::print("{}\n", plan.warnings);
    fmt::print("plan {}: {} steps, no faults\n", plan.name, plan.steps.size());
}

}  // namespace

void addCheck(CLI::App &app, int &status) {
    CLI::App *const command =
        app.add_subcommand("check", "Find every fault of a plan, or of a line and of this machine, without a board");
    const auto path = std::make_shared<std::string>(kServiceLine), files = std::make_shared<std::string>();
    const auto store = std::make_shared<std::string>(), user = std::make_shared<std::string>();
    command->add_option("plan", *path, "The plan, or the line's file")->capture_default_str();
    command->add_option("--files", *files, "Folder of the plan's files, instead of its own");
    command->add_option("--store", *store,
                        "The store whose pools the plan takes from; the file of a line names its own");
    addUser(command, *user);
    command->callback([=, &status] {
        if (*path == kServiceLine && !fs::exists(kServiceLine))
            throw PlanError(fmt::format("there is no {}: qcstation init, run as root, makes an example", *path));
        if (isLineFile(*path)) {
            status = checkLine(*path, *user);
        } else {
            checkPlanFile(*path, *files, *store);
        }
    });
}

}  // namespace station
