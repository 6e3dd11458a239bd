#pragma once
// The station's end of one connection to a board: the framing of commands, payloads and replies.
//
//     session.sendCommand("FW KERNEL 4096");
//     session.sendBytes(kernel);
//     if (session.receiveReply(Milliseconds(60000)) != "OK") ...
//     session.sendCommand("BYE");
//     session.receiveReply(Milliseconds(1000));
//     session.expectClose(Milliseconds(1000));

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "station/base/descriptor.h"
#include "station/base/mac.h"
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

// Returns "192.168.1.2", without the port.
std::string textOf(const sockaddr_in &address);

// Returns this machine's address on a connection.
std::string localAddress(int socket);

constexpr size_t kFrame = 64;           // bytes of a padded command, and of a short reply
constexpr size_t kLongestReply = 1500;  // bytes, its NUL included

// Called while a payload is sent, with the bytes sent so far and in total.
using Progress = std::function<void(uint64_t sent, uint64_t total)>;

// One board's connection. Every call throws SessionError when the board closes or resets the connection.
class Session {
public:
    // `board`: the address that the connection comes from.
    explicit Session(Socket socket, const sockaddr_in &board = {}) : socket_(std::move(socket)), board_(board) {}

    // Sets the time after which every send throws, because the board must have taken everything by then. At first it is
    // an hour after the connection.
    void setSendDeadline(Clock::time_point deadline) { sendDeadline_ = deadline; }

    // Sends a command of at most 64 bytes, padded with NUL, so that a payload can follow at once.
    void sendCommand(std::string_view text);
    // Sends bytes as they are. Calls `progress`, if there is one, after each part that the board has taken.
    void sendBytes(std::string_view bytes, const Progress &progress = {});

    // Receives one reply and returns its text. Throws when it does not arrive completely within the limit, or when its
    // frame is wrong. A right one has 64 bytes, the text padded with NUL; or a longer text and one NUL. Nothing
    // follows.
    std::string receiveReply(Milliseconds limit);

    // Appends bytes that have arrived to `bytes`, up to `most` in total. Does not wait.
    void receiveNow(std::string &bytes, size_t most);

    // Waits for the board to close the connection. Throws when it sends something or does not close in time.
    void expectClose(Milliseconds limit);

    // Returns true when the board has closed or reset the connection, or has acknowledged nothing for ten seconds.
    bool gone() const;

    // Receives until the board closes the connection. Returns the first `most` bytes; adds the number of further ones
    // to `cut`. Throws when the board does not close within the limit.
    std::string receiveAll(Milliseconds limit, size_t most, uint64_t &cut);

    std::string peer() const;         // the board's ADDRESS:PORT, with %INTERFACE if the socket is bound to one
    std::string peerAddress() const;  // the board's ADDRESS
    std::string interface() const { return boundTo(descriptor()); }  // empty if the socket is not bound to one
    // Returns the address of the board's network card as the kernel knows it; nothing for a board on another network.
    std::optional<Mac> hardwareAddress() const;
    int descriptor() const { return socket_.descriptor(); }

private:
    enum class Arrival { kBytes, kNothing, kEnd };
    // Appends at most `most` of the bytes that have arrived. Does not wait.
    Arrival receivePart(std::string &bytes, size_t most);
    // Waits until something arrives or the deadline passes, and appends it to `bytes`.
    Arrival receiveSome(std::string &bytes, Clock::time_point deadline);

    Socket socket_;
    sockaddr_in board_;
    Clock::time_point sendDeadline_ = Clock::now() + std::chrono::hours(1);
};

}  // namespace station
