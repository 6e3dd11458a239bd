#pragma once
// The connection to the test station at 192.168.1.2, TCP port 55688.

// Connects, trying for ever, and serves the station's commands until it says BYE or closes the connection.
// `pkbuf` has kPkbufSize bytes, all zero. Returns when the session has ended; there is no reconnect.
void serveStation(char *pkbuf);
