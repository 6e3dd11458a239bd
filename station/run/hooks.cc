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
#include <vector>

#include "station/base/descriptor.h"
#include "station/run/record_json.h"

namespace station {
namespace {

constexpr size_t kOutputShown = 400;  // bytes, from the end

std::vector<std::string> environmentFor(const RunRecord &run) {
    std::vector<std::string> environment;
    for (char **entry = environ; *entry != nullptr; ++entry) environment.emplace_back(*entry);
    environment.push_back("QC_RUN=" + run.id);
    environment.push_back("QC_PLACE=" + run.place.name);
    environment.push_back(fmt::format("QC_VERDICT={}", textOf(run.passed() ? Verdict::kPassed : Verdict::kFailed)));
    for (const auto &[name, value] : run.variables) environment.push_back(fmt::format("QC_{}={}", name, value.c_str()));
    return environment;
}

// Returns a file in memory: unlike a pipe, it needs nobody who reads it.
Descriptor memoryFile(const std::string &content) {
    Descriptor file(memfd_create("hook", MFD_CLOEXEC));
    if (pwrite(file.descriptor(), content.data(), content.size(), 0) < 0) return Descriptor(-1);
    return file;
}

// Starts the command in a process group of its own. Returns its process ID, or minus an error number.
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
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    pid_t pid = 0;
    const int error = posix_spawn(&pid, shell.c_str(), &files, &attributes, words, entries.data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    return error == 0 ? pid : -error;
}

// Takes what has been printed, at most a pipe's content, and keeps the end of it. Returns false when no more can come.
bool takeOutput(int pipe, std::string &printed) {
    std::array<char, 65536> part;
    const ssize_t length = read(pipe, part.data(), part.size());
    if (length > 0) printed.append(part.data(), static_cast<size_t>(length));
    if (printed.size() > kOutputShown) printed.erase(0, printed.size() - kOutputShown);
    return length > 0 || (length < 0 && (errno == EAGAIN || errno == EINTR));
}

// Waits for the end, or kills the command at the limit. Returns what failed.
std::string outcomeOf(pid_t pid, Milliseconds limit, int output, std::string &printed) {
    const Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    const auto deadline = Clock::now() + limit;
    bool ended = false;
    while (!ended && Clock::now() < deadline) {
        pollfd polled[] = {{process.descriptor(), POLLIN, 0}, {output, POLLIN, 0}};
        poll(polled, 2, pollLimit(deadline));
        ended = polled[0].revents != 0;
        if (polled[1].revents != 0 && !takeOutput(output, printed)) output = -1;
    }
    if (!ended) {
        kill(-pid, SIGKILL);
        kill(pid, SIGKILL);  // it may have left its process group
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!ended) return fmt::format("did not end within {:.1f} s", inSeconds(limit));
    if (WIFSIGNALED(status)) return fmt::format("ended by signal {}", WTERMSIG(status));
    return WEXITSTATUS(status) == 0 ? "" : fmt::format("ended with status {}", WEXITSTATUS(status));
}

}  // namespace

std::string runHook(const Hook &hook, const RunRecord &run) {
    if (hook.command.empty()) return {};
    const Descriptor input = memoryFile(dump(run) + "\n");
    std::array<int, 2> ends = {-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return describeError(hook.command);
    const Descriptor output(ends[0]);
    Descriptor childs(ends[1]);
    fcntl(output.descriptor(), F_SETFL, O_NONBLOCK);
    const pid_t pid = start(hook, run, input.descriptor(), childs.descriptor());
    childs = Descriptor(-1);
    std::string printed;
    const std::string failure = pid < 0 ? strerror(-pid) : outcomeOf(pid, hook.limit, output.descriptor(), printed);
    if (failure.empty()) return {};
    takeOutput(output.descriptor(), printed);
    return fmt::format("{}: {}{}{}", hook.command, failure, printed.empty() ? "" : ": ", printed);
}

}  // namespace station
