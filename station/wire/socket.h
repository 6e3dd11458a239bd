#pragma once
// What sessions and listeners share: sockets and their errors.

#include <stdexcept>
#include <string>

#include "station/base/descriptor.h"
#include "station/base/time.h"

namespace station {

using Socket = Descriptor;

// Says what went wrong on a connection, in words for the line engineer.
struct SessionError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The board answered, but not as it must: the fault is the board's, not the cable's.
struct WrongReply : SessionError {
    using SessionError::SessionError;
};

// Returns the interface that a socket is bound to; empty when it is not bound, or when the interface has gone.
std::string boundTo(int socket);

}  // namespace station
