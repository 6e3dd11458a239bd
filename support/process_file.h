#pragma once
// Finds processes by name and signals them; copies, moves and removes files and trees, natively or, when that fails,
// through the shell.

#include <cstddef>
#include <cstdint>

// One found process.
struct my_proc {
    my_proc *next;  // null in the last record
    int32_t pid;
    char state;    // as in /proc/PID/stat (proc(5)): 'R', 'S', ...
    uint32_t tag;  // my_findproc leaves it 0
};

// Returns all processes whose command name is exactly `name`, in the reverse of the order in which /proc lists them, or
// null. The caller frees the chain with my_freeproc. The kernel keeps 15 characters of a command name (TASK_COMM_LEN of
// linux/sched.h), so a longer name finds nothing.
my_proc *my_findproc(const char *name);
void my_freeproc(my_proc *chain);

// Returns the process ID of the first process with that name, or -1.
int my_procisrun(const char *name);

// Send `signal` to every process with that name; my_killproc_others spares the calling process.
void my_killproc(const char *name, int signal);
void my_killproc_others(const char *name, int signal);

// Sends `signal` to every process with that name whose record has this tag. Retries a failed attempt after 300
// microseconds; after 6 failures in all, each remaining process gets one attempt.
void my_killproc_retry(const char *name, uint32_t tag, int signal);

// Returns a new heap string: directory and name with one '/' between them. Null when the allocation fails.
char *concat_path_file(const char *directory, const char *name);

// Writes all of `data`, continuing after signals and short writes. Returns 0, or -1 at a write that fails or takes
// nothing.
int my_writeAll(int descriptor, const char *data, size_t length);

// Copy, move or remove. /bin/cp, /bin/mv or /bin/rm do what the native operation cannot: a name with '*', a link or
// device to copy, another file system to move to. Failure is not reported. A path must not contain a double quote. A
// null path does nothing.
void my_cp(const char *source, const char *destination);
void my_mv(const char *source, const char *destination);
[[gnu::format(printf, 1, 2)]] void my_rm(const char *format, ...);
