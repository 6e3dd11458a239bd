#pragma once
// The connection to the test station at 192.168.1.2, TCP port 55688.

// Connects, with retries without a limit, and serves the station's commands until BYE or until the connection closes.
// `pkbuf` has kPkbufSize bytes, all 0. Returns at the end of the session, or when the socket cannot be used.
void serveStation(char *pkbuf);
