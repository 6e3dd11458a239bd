#pragma once
// Carries out the commands of the test station.

#include "identity/report.h"

// The file that receives every payload of the connection.
constexpr char kReceiveFile[] = "/tmp/fabtestd.file";

// Size of the buffer that holds a command and then its reply. The longest reply is the report.
constexpr int kPkbufSize = kReportSize;

// 0 until the first PING, then 1: from then on the report's first line names the failed checks.
extern int pingFlag;

// Carries out the command in `pkbuf` (kPkbufSize bytes) and leaves the text of the reply there; an empty text means no
// reply. `length` is the number of received bytes, 1 to 64. A payload is read from `socket`.
// Command words are compared as prefixes and are case-sensitive; the rest is ignored unless the command has an
// argument.
void ParseCmd(int socket, char *pkbuf, int length);
