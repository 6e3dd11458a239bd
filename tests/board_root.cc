#include "tests/board_root.h"

#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace board {
namespace {

namespace fs = std::filesystem;

constexpr const char *kApplets[] = {"cat",   "chmod", "cp", "echo", "ifconfig", "ip", "kill",  "ln",   "logger", "ls",
                                    "mkdir", "mv",    "nc", "ping", "rm",       "sh", "sleep", "tail", "true"};

// Without root's rights the board has root's rights of its own, over what belongs to the caller.
void enterNamespaces() {
    const uid_t user = geteuid();
    const gid_t group = getegid();
    const int everything = CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWIPC | CLONE_NEWPID | CLONE_NEWUTS;
    check(unshare(everything | (user != 0 ? CLONE_NEWUSER : 0)) == 0, "unshare");
    if (user == 0) return;
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
}

// Ends with the status of `child`, and takes in whatever loses its parent on the board meanwhile.
[[noreturn]] void actAsInit(pid_t child) {
    for (;;) {
        int status = 0;
        const pid_t ended = waitpid(-1, &status, 0);
        if (ended == child) _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
    }
}

void bindFrom(const fs::path &root, const fs::path &path) {
    const fs::path target = root / path.relative_path();
    if (fs::is_directory(path)) {
        fs::create_directories(target);
    } else {
        fs::create_directories(target.parent_path());
        std::ofstream(target, std::ios::app);
    }
    check(mount(path.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) == 0, path.c_str());
}

// A fault of the code under test must not reach the machine.
void bindReadOnly(const fs::path &root, const fs::path &path) {
    bindFrom(root, path);
    const fs::path target = root / path.relative_path();
    check(mount(nullptr, target.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) == 0, path.c_str());
}

void makeRoot(const fs::path &root, const char *writable) {
    check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
    check(mount("tmpfs", root.c_str(), "tmpfs", 0, "mode=755") == 0, "tmpfs");
    for (const char *folder : {"bin", "etc", "var", "tmp", "sys", "proc", "dev"}) fs::create_directories(root / folder);
    fs::create_symlink("bin", root / "sbin");
    for (const char *libraries : {"/lib", "/lib32", "/lib64", "/libx32"}) {
        if (fs::is_symlink(libraries)) fs::copy_symlink(libraries, root / fs::path(libraries).relative_path());
    }
    bindReadOnly(root, "/usr");
    bindReadOnly(root, PROJECT_BINARY_DIR);
    if (writable != nullptr) bindFrom(root, writable);
    for (const char *device : {"/dev/null", "/dev/zero", "/dev/full", "/dev/urandom"}) bindFrom(root, device);
    check(mount("proc", (root / "proc").c_str(), "proc", 0, nullptr) == 0, "proc");
    fs::copy_file("/bin/busybox", root / "bin/busybox");
    for (const char *applet : kApplets) fs::create_symlink("busybox", root / "bin" / applet);
}

}  // namespace

void check(bool succeeded, const char *what) {
    if (succeeded) return;
    perror(what);
    _exit(99);
}

void enterRoot(const char *writable) {
    // A mount point that is there on every machine; only this process and its children see what is mounted on it.
    constexpr char kRoot[] = "/mnt";
    const pid_t outside = ::fork();
    check(outside >= 0, "fork");
    if (outside > 0) actAsInit(outside);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    enterNamespaces();
    const pid_t init = ::fork();  // the first process of the PID namespace: when it ends, all others do
    check(init >= 0, "fork");
    if (init > 0) actAsInit(init);
    prctl(PR_SET_PDEATHSIG, SIGKILL);

    const pid_t self = ::fork();
    check(self >= 0, "fork");
    if (self > 0) actAsInit(self);
    makeRoot(kRoot, writable);
    check(chroot(kRoot) == 0 && chdir("/") == 0, "chroot");
    setenv("PATH", "/bin:/usr/sbin:/usr/bin", 1);
}

}  // namespace board
