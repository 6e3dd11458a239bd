#include "station/run/hooks.h"

#include <fmt/format.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <vector>

#include "station/base/descriptor.h"
#include "station/run/record_json.h"

namespace station {
namespace {

constexpr off_t kOutputShown = 400;  // bytes, from the end

std::vector<std::string> environmentFor(const RunRecord &run) {
    std::vector<std::string> environment;
    for (char **entry = environ; *entry != nullptr; ++entry) environment.emplace_back(*entry);
    environment.push_back("QC_RUN=" + run.id);
    environment.push_back("QC_PLACE=" + run.place.name);
    environment.push_back(fmt::format("QC_VERDICT={}", textOf(run.passed() ? Verdict::kPassed : Verdict::kFailed)));
    for (const auto &[name, value] : run.variables) environment.push_back(fmt::format("QC_{}={}", name, value.c_str()));
    return environment;
}

// A file in memory, which no other process holds back by not reading or writing it.
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

// Waits for the end, or ends it at the limit. Returns what failed.
std::string outcomeOf(pid_t pid, Milliseconds limit) {
    const Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    const bool ended = waitFor(process.descriptor(), POLLIN, Clock::now() + limit);
    if (!ended) kill(-pid, SIGKILL);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!ended) return fmt::format("did not end within {:.1f} s", double(limit.count()) / 1000);
    if (WIFSIGNALED(status)) return fmt::format("ended by signal {}", WTERMSIG(status));
    return WEXITSTATUS(status) == 0 ? "" : fmt::format("ended with status {}", WEXITSTATUS(status));
}

std::string endOf(int file) {
    struct stat size {};
    fstat(file, &size);
    std::string text(static_cast<size_t>(std::min(size.st_size, kOutputShown)), '\0');
    const ssize_t length = pread(file, text.data(), text.size(), size.st_size - static_cast<off_t>(text.size()));
    text.resize(static_cast<size_t>(std::max<ssize_t>(length, 0)));
    return text;
}

}  // namespace

std::string runHook(const Hook &hook, const RunRecord &run) {
    if (hook.command.empty()) return {};
    const Descriptor input = memoryFile(dump(run) + "\n"), output = memoryFile("");
    const pid_t pid = start(hook, run, input.descriptor(), output.descriptor());
    const std::string failure = pid < 0 ? strerror(-pid) : outcomeOf(pid, hook.limit);
    if (failure.empty()) return {};
    const std::string printed = endOf(output.descriptor());
    return fmt::format("{}: {}{}{}", hook.command, failure, printed.empty() ? "" : ": ", printed);
}

}  // namespace station
