#pragma once
// Finding processes by name and signalling them; copying, moving and removing files and trees, natively and, when
// that fails, through the shell.

#include <cstdint>

// A process found, heap-allocated; the finder's caller frees the chain with my_freeproc.
struct my_proc {
    my_proc *next;  // null in the last record
    int32_t pid;
    char state;    // as in /proc/PID/stat (proc(5)): 'R', 'S', ...
    uint32_t tag;  // 0 from the finder
};

// All processes whose command name is exactly `name`, newest entry of /proc first; null when there is none.
// The kernel keeps 15 characters of a command name (TASK_COMM_LEN of linux/sched.h), so a longer name finds nothing.
my_proc *my_findproc(const char *name);
void my_freeproc(my_proc *chain);

// The pid of the first process of that name, -1 when there is none.
int my_procisrun(const char *name);

// Send `signal` to every process of that name; my_killproc_others leaves out the calling process.
void my_killproc(const char *name, int signal);
void my_killproc_others(const char *name, int signal);

// Sends `signal` to every process of that name whose record has this tag, and tries again while that fails: after
// every failure it sleeps 300 microseconds, and after 6 failures in all, each process left is tried once.
void my_killproc_retry(const char *name, uint32_t tag, int signal);

// New heap string: directory and name with one '/' between them; null when the allocation fails.
char *concat_path_file(const char *directory, const char *name);

// Copy, move or remove. What the native operation cannot do (a name with '*', a link or device to copy, another file
// system to move to) is left to /bin/cp, /bin/mv or /bin/rm, which report failure to nobody. A path must not contain
// a double quote. A null path does nothing.
void my_cp(const char *source, const char *destination);
void my_mv(const char *source, const char *destination);
[[gnu::format(printf, 1, 2)]] void my_rm(const char *format, ...);
