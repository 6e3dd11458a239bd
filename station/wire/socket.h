#pragma once
// What sessions and listeners share: an open socket, and how a failure is told.

#include <stdexcept>
#include <string>

#include "station/base/descriptor.h"
#include "station/base/time.h"

namespace station {

using Socket = Descriptor;

// What went wrong on the connection, in words for the line engineer.
struct SessionError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The board answered, but not as it must: the fault is the board's, not the cable's.
struct WrongReply : SessionError {
    using SessionError::SessionError;
};

// Returns the interface that a socket is bound to; empty for none, and for one that has gone.
std::string boundTo(int socket);

}  // namespace station
