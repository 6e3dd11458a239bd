#pragma once
// The commands of the test station.

#include "identity/report.h"

// Every payload of the connection is received into this file.
constexpr char kReceiveFile[] = "/tmp/fabtestd.file";

// Size of the buffer that holds a command and then its reply. The longest reply, the report, fits with its NUL.
constexpr int kPkbufSize = kReportSize;

// 0 until the first PING, then 1: the report names failed checks in its first line only once the station asked.
extern int pingFlag;

// Interprets the command in `pkbuf` (kPkbufSize bytes), carries it out and leaves the reply's text there, empty for
// no reply. `length` is the number of bytes received, 1 to 64; `socket` is where a payload is read from.
// A word is compared as a prefix, with case, and what follows it is ignored unless the command has an argument.
void ParseCmd(int socket, char *pkbuf, int length);
