#include "station/run/hooks.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>
#include <set>
#include <stdexcept>
#include <vector>

#include "station/base/descriptor.h"
#include "station/base/mutex.h"
#include "station/base/text.h"
#include "station/plan/variables.h"
#include "station/run/record_json.h"

namespace station {
namespace {

constexpr size_t kOutputShown = 400;  // bytes, from the end

// The commands in work. While the mutex is locked, none starts, and the end of none is noticed.
struct {
    Mutex mutex;
    std::set<pid_t> groups GUARDED_BY(mutex);
} commands;

std::string verdictOf(const RunRecord &run) {
    if (run.passed()) return "passed";
    return run.ended() || run.interrupted || run.failures() > 0 || !run.failure.empty() ? "failed" : "";
}

// Returns the environment as "NAME=VALUE" texts. The shell takes the last one of a name: the station's own.
std::vector<std::string> environmentFor(const RunRecord &run) {
    std::vector<std::string> environment;
    for (char **entry = environ; *entry != nullptr; ++entry) environment.emplace_back(*entry);
    const auto add = [&](std::string_view name, const std::string &value) {
        environment.push_back(fmt::format("QC_{}={}", name, value.c_str()));  // up to the first NUL
    };
    for (const auto &[name, value] : run.variables) add(name, value);
    const std::array<std::string, kStationNames.size()> own = {run.id, run.place.name, verdictOf(run)};
    for (size_t i = 0; i < own.size(); ++i) add(kStationNames[i], own[i]);
    return environment;
}

// Returns a file in memory. Unlike a pipe it needs no reader while it is written.
Descriptor memoryFile(const std::string &content) {
    Descriptor file(memfd_create("hook", MFD_CLOEXEC));
    if (pwrite(file.descriptor(), content.data(), content.size(), 0) < 0) return Descriptor(-1);
    return file;
}

// Starts the command in a session of its own, where it has no terminal. Returns its process ID, or a negative error
// number.
pid_t start(const Hook &hook, const RunRecord &run, int input, int output) {
    std::vector<std::string> environment = environmentFor(run);
    std::vector<char *> entries;
    entries.reserve(environment.size() + 1);
    for (std::string &entry : environment) entries.push_back(entry.data());
    entries.push_back(nullptr);
    std::string shell = "/bin/sh", option = "-c", command = hook.command;
    char *const words[] = {shell.data(), option.data(), command.data(), nullptr};

    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, input, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&files, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&files, output, STDERR_FILENO);
    if (!hook.folder.empty()) posix_spawn_file_actions_addchdir_np(&files, hook.folder.c_str());
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none, pipe;
    sigemptyset(&none);
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &pipe);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    pid_t pid = 0;
    const Lock lock(commands.mutex);
    const int error = posix_spawn(&pid, shell.c_str(), &files, &attributes, words, entries.data());
    if (error == 0) commands.groups.insert(pid);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    return error == 0 ? pid : -error;
}

using Take = std::function<void(std::string_view part)>;

// Reads what the command has printed, at most a pipe's content. Returns false when no more can come.
bool takeOutput(int pipe, const Take &take) {
    std::array<char, 65536> part;
    const ssize_t length = read(pipe, part.data(), part.size());
    if (length > 0) take({part.data(), static_cast<size_t>(length)});
    return length > 0 || (length < 0 && (errno == EAGAIN || errno == EINTR));
}

// Waits until the command ends, or kills it at the limit. Returns the status of waitpid(); nothing when it was killed.
std::optional<int> await(pid_t pid, Milliseconds limit, int output, const Take &take) {
    const Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    const auto deadline = Clock::now() + limit;
    bool ended = false;
    while (!ended && Clock::now() < deadline) {
        pollfd polled[] = {{process.descriptor(), POLLIN, 0}, {output, POLLIN, 0}};
        poll(polled, 2, pollLimit(deadline));
        ended = polled[0].revents != 0;
        if (polled[1].revents != 0 && !takeOutput(output, take)) output = -1;
    }
    if (!ended) kill(-pid, SIGKILL);
    {
        const Lock lock(commands.mutex);
        commands.groups.erase(pid);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    takeOutput(output, take);
    return ended ? std::optional(status) : std::nullopt;
}

}  // namespace

int runShell(const Hook &command, const RunRecord &run, const Take &take) {
    const Descriptor input = memoryFile(dump(run) + "\n");
    std::array<int, 2> ends = {-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error(describeError("did not start"));
    const Descriptor output(ends[0]);
    Descriptor childs(ends[1]);
    fcntl(output.descriptor(), F_SETFL, O_NONBLOCK);
    const pid_t pid = start(command, run, input.descriptor(), childs.descriptor());
    childs = Descriptor(-1);
    if (pid < 0) throw std::runtime_error(fmt::format("did not start: {}", strerror(-pid)));
    const std::optional<int> status = await(pid, command.limit, output.descriptor(), take);
    if (!status) {
        throw std::runtime_error(fmt::format("did not end within {:.1f} s, and was killed", inSeconds(command.limit)));
    }
    if (WIFSIGNALED(*status)) {
        throw std::runtime_error(
            fmt::format("ended by signal {} ({})", WTERMSIG(*status), strsignal(WTERMSIG(*status))));
    }
    return WEXITSTATUS(*status);
}

void killCommands(const std::function<void()> &then) {
    const Lock lock(commands.mutex);
    for (const pid_t group : commands.groups) kill(-group, SIGKILL);
    then();
}

std::string runHook(const Hook &hook, const RunRecord &run, std::string_view when) {
    if (hook.command.empty()) return {};
    std::string printed, failure;
    try {
        const int status = runShell(hook, run, [&](std::string_view part) {
            printed += part;
            if (printed.size() > kOutputShown) printed.erase(0, printed.size() - kOutputShown);
        });
        if (status == 0) return {};
        failure = fmt::format("status {}", status);
    } catch (const std::runtime_error &error) {
        failure = error.what();
    }
    // cppcheck-suppress knownConditionTrueFalse ; the lambda changes it
    const char *const separator = printed.empty() ? "" : ": ";
    return fmt::format("The command {} the test, {}, failed ({}){}{}", when, programOf(hook.command), failure,
                       separator, printed);
}

}  // namespace station
