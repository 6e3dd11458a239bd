#include "station/cli/service.h"

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "station/base/file.h"
#include "station/cli/commands.h"
#include "station/run/output.h"
#include "station/store/store_records.h"

namespace station {
namespace {

namespace fs = std::filesystem;

constexpr const char *kServiceUser = "qcstation";

// Returns the user to become; null when this process is to stay as it is.
const passwd *userOf(const std::string &name) {
    if (geteuid() != 0 && name.empty()) return nullptr;
    const passwd *const user = getpwnam(name.empty() ? kServiceUser : name.c_str());
    if (user == nullptr && !name.empty()) throw CLI::ValidationError("--user", "this machine has no user " + name);
    if (user != nullptr && user->pw_uid == geteuid()) return nullptr;
    if (geteuid() != 0) throw CLI::ValidationError("--user", "only root can become another user");
    return user;
}

// Returns the path from the root, without following links.
fs::path wholePath(const fs::path &path) {
    const fs::path whole = fs::absolute(path).lexically_normal();
    return whole.has_filename() ? whole : whole.parent_path();
}

std::vector<fs::path> filesIn(const fs::path &folder) {
    std::error_code none;
    const fs::directory_iterator entries(folder, none);
    return {begin(entries), end(entries)};
}

// Makes a folder, and gives it to the user, if there is one.
void makeFolder(const fs::path &folder, const passwd *user) {
    fs::create_directories(folder.parent_path());
    const bool made = mkdir(folder.c_str(), 0750) == 0;
    if (!made && errno == EEXIST) return;
    if (!made || (user != nullptr && lchown(folder.c_str(), user->pw_uid, user->pw_gid) != 0))
        throw std::system_error(errno, std::generic_category(), folder.string());
    fmt::print("{} made\n", folder.string());
}

void makeStore(const std::string &store) {
    const auto say = [](const std::string &text) { fmt::print("{}\n", text); };
    const int before = openStore(store, Database::Missing::kIsIgnored)->version();
    openStore(store, Database::Missing::kIsMade, say);
    if (before == 0) fmt::print("{}: tables made\n", shownName(store));
}

void makeExample(const fs::path &path) {
    fs::create_directories(fs::absolute(path).parent_path());
    NewFile file(path);
    file.write(kExampleFiles.front().content);
    file.keep();
    fmt::print("{} made from the example: edit it for your line\n", path.string());
}

void init(const fs::path &path, const std::string &name) {
    const passwd *const user = userOf(name);
    if (!fs::exists(path)) makeExample(path);
    const LineFile line = readLine(path);
    for (const Room &room : roomsOf(line)) makeFolder(room.folder, user);
    becomeUser(name);
    try {
        if (!line.store.empty()) makeStore(line.store);
    } catch (const StoreError &) {
        printError(fmt::format("the store cannot be made: qcstation check {} says more\n", path.string()));
        throw;
    }
    fmt::print("all is there. Next: qcstation check {}\n", path.string());
}

}  // namespace

void addUser(CLI::App *command, std::string &user) {
    command->add_option("--user", user, fmt::format("When run by root: act as this user; {} by default", kServiceUser));
}

void becomeUser(const std::string &name) {
    const passwd *const user = userOf(name);
    if (user == nullptr) return;
    if (initgroups(user->pw_name, user->pw_gid) != 0 || setgid(user->pw_gid) != 0 || setuid(user->pw_uid) != 0) {
        throw std::system_error(errno, std::generic_category(), user->pw_name);
    }
}

std::string userName() {
    const passwd *const user = getpwuid(geteuid());
    return user != nullptr ? user->pw_name : std::to_string(geteuid());
}

std::string askerOf(const LineFile &line) {
    const auto asks = [](const Step &step) { return step.kind == Kind::kAsk; };
    if (std::any_of(line.plan.steps.begin(), line.plan.steps.end(), asks)) return "the plan " + line.plan.name;
    return line.who.prompt.empty() ? "" : "\"operator\" of the line";
}

std::vector<Room> roomsOf(const LineFile &line) {
    std::vector<Room> rooms;
    if (!line.store.empty() && line.store.find("://") == std::string::npos) {
        const fs::path file = wholePath(line.store);
        rooms.push_back({"store", file.parent_path(), {file, file.string() + "-wal", file.string() + "-shm"}});
    }
    if (!line.results.empty()) rooms.push_back({"results", wholePath(line.results), {}});
    if (!line.store.empty()) {
        const fs::path spool = wholePath(line.spool.empty() ? defaultSpool(line.store) : line.spool);
        rooms.push_back({"spool", spool, filesIn(spool)});
    }
    return rooms;
}

void addInit(CLI::App &app) {
    CLI::App *const command = app.add_subcommand("init", "Make what a line needs and does not have: folders, store");
    const auto path = std::make_shared<std::string>(kServiceLine), user = std::make_shared<std::string>();
    command->add_option("line", *path, "The line's file; an example is made if there is none")->capture_default_str();
    addUser(command, *user);
    command->callback([=] { init(*path, *user); });
}

}  // namespace station
