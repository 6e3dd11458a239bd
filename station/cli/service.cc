#include "station/cli/service.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <linux/openat2.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <system_error>

#include "station/base/descriptor.h"
#include "station/base/file.h"
#include "station/cli/commands.h"
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

// Returns what the path leads to; none, with errno ELOOP, when it leads there over a link.
Descriptor openUnlinked(const fs::path &path) {
    open_how how{};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS;
    return Descriptor(static_cast<int>(syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
}

bool holdsOnly(const Descriptor &folder, const fs::path &path, const std::set<fs::path> &own) {
    const fs::directory_iterator entries(fmt::format("/proc/self/fd/{}", folder.descriptor()));
    return std::all_of(begin(entries), end(entries),
                       [&](const auto &entry) { return own.contains(path / entry.path().filename()); });
}

// Returns the path from the root, without following links.
fs::path wholePath(const fs::path &path) {
    const fs::path whole = fs::absolute(path).lexically_normal();
    return whole.has_filename() ? whole : whole.parent_path();
}

// Returns a folder of files. None of them is the station's own if it has other folders.
Room roomAt(const char *about, const fs::path &path) {
    Room room{about, wholePath(path), {}};
    std::error_code none;
    for (const auto &file : fs::directory_iterator(room.folder, none)) {
        if (!file.is_regular_file(none)) return {about, room.folder, {}};
        room.files.push_back(file.path());
    }
    return room;
}

// Gives the service what root has made, as it could not write it. A folder that holds anything else stays root's, and
// so does what a link leads to: the service may have put the link there to get any file of root's.
void give(const fs::path &path, const std::set<fs::path> &own, const passwd *user) {
    if (user == nullptr) return;
    const Descriptor file = openUnlinked(path);
    struct stat status {};
    const bool there = file.descriptor() >= 0 && fstat(file.descriptor(), &status) == 0;
    if ((!there && errno == ELOOP) || (S_ISREG(status.st_mode) && status.st_nlink > 1 && status.st_uid == 0)) {
        fmt::print("{} is a link, or behind one, and stays as it is\n", path.string());
        return;
    }
    if (!there || status.st_uid != 0) return;
    if (S_ISDIR(status.st_mode) && !holdsOnly(file, path, own)) return;
    if (fchownat(file.descriptor(), "", user->pw_uid, user->pw_gid, AT_EMPTY_PATH) != 0) {
        throw std::system_error(errno, std::generic_category(), path.string());
    }
    fmt::print("{} is {}'s now\n", path.string(), user->pw_name);
}

void makeFolder(const fs::path &folder) {
    fs::create_directories(folder.parent_path());
    const bool made = mkdir(folder.c_str(), 0750) == 0;
    if (!made && errno != EEXIST) throw std::system_error(errno, std::generic_category(), folder.string());
    if (made) fmt::print("{} made\n", folder.string());
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
    for (const Room &room : roomsOf(line)) makeFolder(room.folder);
    std::set<fs::path> own;
    for (const Room &room : roomsOf(line)) {
        own.insert(room.folder);
        own.insert(room.files.begin(), room.files.end());
    }
    for (const fs::path &each : own) give(each, own, user);
    becomeUser(name);
    if (!line.store.empty()) makeStore(line.store);
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
    if (!line.results.empty()) rooms.push_back(roomAt("results", line.results));
    if (!line.store.empty())
        rooms.push_back(roomAt("spool", line.spool.empty() ? defaultSpool(line.store) : line.spool));
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
