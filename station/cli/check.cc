#include <arpa/inet.h>
#include <fmt/format.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <re2/re2.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <map>
#include <sstream>
#include <thread>

#include "station/cli/commands.h"
#include "station/cli/exit_codes.h"
#include "station/cli/service.h"
#include "station/line/line_file.h"
#include "station/store/pool.h"
#include "station/store/store_records.h"
#include "station/wire/listener.h"

namespace station {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kForStore{5};  // to answer

// A fault keeps the line from working; with a warning it works, but not as it should.
enum class Grade { kFine, kWarning, kFault };

struct StoreAnswer {
    Grade grade = Grade::kFine;
    std::string text;
    Table pools;  // the table of listPools(), or only the names
    bool known = false;
};

// The state of a line's check.
struct Check {
    std::string path;
    LineFile line;
    StoreAnswer store = {};
    std::map<Grade, int> counts = {};
    bool served = false;  // something listens at the line's address already

    void tell(Grade grade, const std::string &about, const std::string &text) {
        static const std::map<Grade, const char *> kWords = {
            {Grade::kFine, "ok"}, {Grade::kWarning, "warning"}, {Grade::kFault, "fault"}};
        ++counts[grade];
        fmt::print("{:8} {:16} {}\n", kWords.at(grade), about, text);
    }
    void fine(const std::string &about, const std::string &text) { tell(Grade::kFine, about, text); }
    void warn(const std::string &about, const std::string &text) { tell(Grade::kWarning, about, text); }
    void fault(const std::string &about, const std::string &text) { tell(Grade::kFault, about, text); }
};

std::string cannotWrite(const fs::path &path) {
    return fmt::format("{} cannot write {}: qcstation init, run as root, mends what root has made", userName(),
                       path.string());
}

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
bool checkAddress(Check &check, const std::string &about, const std::string &interface) {
    const LineFile &line = check.line;
    const int error = tryAddress(line.address, line.port, interface);
    const std::string where =
        fmt::format("{}:{}{}{}", line.address, line.port, interface.empty() ? "" : " on ", interface);
    check.served |= error == EADDRINUSE;
    if (error == 0) {
        check.fine(about, where + " is free");
    } else if (error == EADDRINUSE) {
        check.fine(about, where + " is in use: by this line's station, or: ss -ltnp shows the program");
    } else {
        check.fault(about, fmt::format("{} cannot be used: {}", where, hintFor(error, line.address, interface)));
    }
    return error == 0 || error == EADDRINUSE;
}

// A place whose adapter is unplugged does not keep the others from working.
void checkPlaces(Check &check) {
    const LineFile &line = check.line;
    const std::set<std::string> addressed = interfacesWith(line.address);
    bool works = line.cables.empty() && checkAddress(check, "listen", "");
    for (size_t i = 0; i < line.cables.size(); ++i) {
        const std::string &interface = line.cables[i], about = "place " + line.places[i].name;
        const bool there = if_nametoindex(interface.c_str()) != 0;
        if (addressed.contains(interface)) {
            works |= checkAddress(check, about, interface);
        } else {
            check.warn(about, hintFor(there ? EADDRNOTAVAIL : ENODEV, line.address, interface));
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

void checkPage(Check &check) {
    if (!check.line.page) return;
    const PageSettings &page = *check.line.page;
    const int error = tryAddress(page.address, page.port, "");
    const std::string where = fmt::format("{}:{}", page.address, page.port);
    if (error == 0) return check.fine("page", where + " is free");
    if (error == EADDRINUSE && check.served) return check.fine("page", where + " is in use, as the line's address is");
    check.fault("page", fmt::format("{} cannot be used: {}", where, hintFor(error, page.address, "")));
}

// ---- the store

// Returns what the database denies to this user, and how to mend it; empty: nothing.
std::string denial(Database &database) {
    if (!database.shared()) return {};
    const Table denied = database.ask(
        "SELECT current_user, string_agg(tablename, ', ') FROM pg_tables WHERE schemaname = current_schema() AND NOT"
        " (SELECT bool_and(has_table_privilege(format('%I.%I', schemaname, tablename), privilege))"
        " FROM unnest(ARRAY['SELECT', 'INSERT', 'UPDATE', 'DELETE']) AS privilege)");
    if (!denied.rows.at(0)[1]) return {};
    return fmt::format("the role {0} may not write {1}. Their owner mends that: "
                       "GRANT ALL ON ALL TABLES IN SCHEMA public TO {0}",
                       *denied.rows[0][0], *denied.rows[0][1]);
}

// Returns the store's file, or the file beside it, that this user cannot write; empty if all can be written.
std::string deniedFile(const std::string &store) {
    for (const std::string &file : {store, store + "-wal", store + "-shm"}) {
        if (fs::exists(file) && access(file.c_str(), R_OK | W_OK) != 0) return file;
    }
    return {};
}

StoreAnswer stateOf(Database &database, const std::string &name) {
    if (const std::string why = denial(database); !why.empty()) return {Grade::kFault, name + ": " + why};
    const int version = database.version();
    if (version > Database::kNewest) return {Grade::kFault, name + " was made by a newer program: update this one"};
    if (version == 0) return {Grade::kWarning, name + " has no tables yet: qcstation init makes them", {}, true};
    if (version == Database::kNewest) {
        return {Grade::kFine, fmt::format("{}, version {}", name, version), listPools(database), true};
    }
    return {
        Grade::kWarning,
        fmt::format("{} is of version {}: the station brings it to version {} when it starts. Stop all others before",
                    name, version, Database::kNewest),
        database.ask("SELECT name FROM pools"), true};
}

StoreAnswer askStore(const std::string &store) try {
    const bool file = store.find("://") == std::string::npos;
    if (file && !fs::exists(store)) {
        return {Grade::kWarning, store + " is not there yet: qcstation init makes it", {}, true};
    }
    if (const std::string denied = file ? deniedFile(store) : ""; !denied.empty()) {
        return {Grade::kFault, cannotWrite(denied)};
    }
    const auto database = openStore(store, Database::Missing::kIsIgnored);
    database->onlyAsk(kForStore);
    return stateOf(*database, shownName(store));
} catch (const std::exception &error) {
    return {Grade::kFault, error.what()};
}

// Returns the store's answer; a fault if it takes too long. The thread of a store that hangs is abandoned.
StoreAnswer askInTime(const std::string &store) {
    std::packaged_task<StoreAnswer()> task([store] { return askStore(store); });
    std::future<StoreAnswer> answer = task.get_future();
    std::thread(std::move(task)).detach();
    if (answer.wait_for(kForStore) == std::future_status::ready) return answer.get();
    return {Grade::kFault, fmt::format("{} does not answer within {} s", shownName(store), kForStore.count())};
}

void checkStore(Check &check) {
    if (check.line.store.empty()) return;
    check.store = askInTime(check.line.store);
    check.tell(check.store.grade, "store", check.store.text);
}

void checkPools(Check &check) {
    std::map<std::string, int> taken;
    for (const Step &step : check.line.plan.steps) {
        for (const Taken &each : step.takes) taken[each.pool] = each.count;
    }
    const Table &pools = check.store.pools;
    for (const auto &row : pools.rows) {
        const auto take = taken.find(*row[0]);
        if (take == taken.end() || row.size() == 1) continue;
        const auto cell = [&](const char *name) {
            const auto at = std::find(pools.columns.begin(), pools.columns.end(), name) - pools.columns.begin();
            return row.at(size_t(at)).value_or("");
        };
        const bool same = cell("block") == std::to_string(take->second);
        const auto units = same ? std::stoll(cell("units")) : std::stoll(cell("left")) / take->second;
        const std::string text = fmt::format("{}, enough for {} units", cell("kind"), units);
        if (units > 0 && cell("warning").empty())
            check.fine("pool " + take->first, text);
        else
            check.warn("pool " + take->first, text + ": fill it with qcstation pool add, or pool import");
    }
}

// ---- the plan and its commands

void tellLines(Check &check, Grade grade, const std::string &about, const std::string &lines) {
    std::istringstream text(lines);
    for (std::string line; std::getline(text, line);) check.tell(grade, about, line);
}

void checkPlan(Check &check) try {
    if (!check.line.store.empty() && !check.store.known) {
        return check.warn("plan", "is not checked, because it may take from pools, and the store does not name them");
    }
    std::set<std::string> pools;
    for (const auto &row : check.store.pools.rows) pools.insert(*row[0]);
    check.line = loadLine(check.path, [&](const std::string &) { return pools; });
    const Plan &plan = check.line.plan;
    tellLines(check, Grade::kWarning, "plan", plan.warnings);
    check.fine("plan", fmt::format("{}: {} steps, {} files", plan.name, plan.steps.size(), plan.files.size()));
} catch (const PlanError &error) {
    tellLines(check, Grade::kFault, "plan", error.what());
}

std::string quoted(std::string text) {
    re2::RE2::GlobalReplace(&text, "'", R"('\\'')");
    return "'" + text + "'";
}

// Lets the shell parse the command and look for the program that it begins with. Runs nothing of it.
void checkCommand(Check &check, const std::string &about, const std::string &command, const fs::path &folder) {
    static const re2::RE2 kProgram("\\s*([\\w./+-]+)(?:[\\s;|&<>](?s:.*))?");
    if (command.empty()) return;
    const auto shell = [&](const std::string &text) {
        const std::string within = "exec > /dev/null 2>&1; cd " + quoted(folder.empty() ? "." : folder) + " && ";
        return std::system((within + text).c_str()) == 0;
    };
    if (!shell("sh -n -c " + quoted(command))) return check.fault(about, "the shell does not understand: " + command);
    std::string program;
    if (!re2::RE2::FullMatch(command, kProgram, &program)) return check.fine(about, command);
    const bool path = program.find('/') != std::string::npos;
    if (shell(fmt::format(fmt::runtime(path ? "test -f {0} -a -x {0}" : "command -v {0}"), quoted(program))))
        return check.fine(about, command);
    check.fault(about,
                fmt::format("{} cannot run {}: is it there, and is it a program (chmod +x)?", userName(), program));
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

void checkFolder(Check &check, const std::string &about, const fs::path &path) {
    std::error_code error;
    fs::path there = fs::absolute(path);
    while (!fs::exists(there, error) && there.has_relative_path()) there = there.parent_path();
    if (!fs::is_directory(there)) return check.fault(about, there.string() + " is not a folder");
    if (access(there.c_str(), W_OK | X_OK) != 0) return check.fault(about, cannotWrite(there));
    for (const auto &entry : fs::directory_iterator(path, error)) {
        const bool ours = about == "folder spool";  // the files of the other folders may be anybody's
        if (ours && access(entry.path().c_str(), R_OK | W_OK) != 0)
            return check.fault(about, cannotWrite(entry.path()));
    }
    check.fine(about, path.string() + (fs::exists(path) ? " can be written" : " can be made"));
}

void checkFolders(Check &check) {
    for (const auto &[about, folder] : foldersOf(check.line)) checkFolder(check, "folder " + about, folder);
}

constexpr void (*kChecks[])(Check &check) = {checkPlaces, checkRoutes, checkPage,  checkFolders,
                                             checkStore,  checkPlan,   checkPools, checkCommands};

int checkLine(const std::string &path, const std::string &user) {
    becomeUser(user);
    Check check{.path = path, .line = readLine(path)};
    fmt::print("line {}, checked as the user {}\n", path, userName());
    for (const auto each : kChecks) each(check);
    const auto several = [&](Grade grade, const char *what) {
        const int count = check.counts[grade];
        return fmt::format("{} {}{}", count == 0 ? "no" : std::to_string(count), what, count == 1 ? "" : "s");
    };
    fmt::print("{}, {}\n", several(Grade::kFault, "fault"), several(Grade::kWarning, "warning"));
    return check.counts[Grade::kFault] == 0 ? kPassed : kWrongInput;
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
        if (isLineFile(*path)) {
            status = checkLine(*path, *user);
        } else {
            checkPlanFile(*path, *files, *store);
        }
    });
}

}  // namespace station
