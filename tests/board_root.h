#pragma once
// Namespaces (mount, network, IPC, PID, UTS) and a root file system in memory that look like the board's: busybox
// behind the shell and the network tools, an empty /etc, /var, /tmp and /sys. Every absolute path of the code is the
// real one.

namespace board {

// Puts the calling process, which has one thread, there, and comes back there. The original process stays outside and
// ends with the status of the one on the board. Of the machine only /usr and this build are seen, and nothing of it can
// be written but what is below `writable`, a folder of the build, if that is given.
void enterRoot(const char *writable = nullptr);

// Ends the process with a message unless `succeeded`.
void check(bool succeeded, const char *what);

}  // namespace board
