#pragma once
// The station's end of one QC connection: the framing of commands, payloads and replies.

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "station/wire/socket.h"

namespace station {

constexpr size_t kFrame = 64;           // bytes of a padded command, and of a reply that fits
constexpr size_t kLongestReply = 1500;  // bytes, its NUL included

// Called with how many bytes of a payload have been sent, and of how many.
using Progress = std::function<void(uint64_t sent, uint64_t total)>;

// One board's connection. Every call throws SessionError when the board closes or resets the connection.
class Session {
public:
    // `board`: where it comes from.
    explicit Session(Socket socket, const sockaddr_in &board = {}) : socket_(std::move(socket)), board_(board) {}

    // Sets the time by which the board must have taken all that is sent: every send throws after it. At first it is an
    // hour after the connection.
    void setSendDeadline(Clock::time_point deadline) { sendDeadline_ = deadline; }

    // Sends a command of at most 64 bytes, padded with NUL, so that a payload can follow at once.
    void sendCommand(std::string_view text);
    // Sends bytes as they are. `progress`, when set, is called after each part that was taken.
    void sendBytes(std::string_view bytes, const Progress &progress = {});

    // Receives one reply and returns its text. Throws when not all of it arrives within the limit, or when its frame is
    // not exact: 64 bytes with NUL after the text; or a longer text and one NUL; and nothing after that.
    std::string receiveReply(Milliseconds limit);

    // Appends what has arrived to `bytes`, without waiting, until there are `most`.
    void receiveNow(std::string &bytes, size_t most);

    // Waits for the board to close the connection. Throws when it sends something or does not close in time.
    void expectClose(Milliseconds limit);

    // Returns true when the board has closed or reset the connection, or has acknowledged nothing for ten seconds.
    bool gone() const;

    // Receives until the board closes the connection. Returns the first `most` bytes, and adds the number of the others
    // to `cut`, when it is given. Throws when the board does not close within the limit.
    std::string receiveAll(Milliseconds limit, size_t most = SIZE_MAX, uint64_t *cut = nullptr);

    // Ends the connection with a reset instead of a close.
    void reset();

    std::string localAddress() const;  // this machine's, on this connection
    std::string peer() const;          // ADDRESS:PORT of the board, and %INTERFACE when it is bound to one
    std::string peerAddress() const;   // ADDRESS alone
    std::string interface() const { return boundTo(descriptor()); }  // empty for none
    int descriptor() const { return socket_.descriptor(); }

private:
    enum class Arrival { kBytes, kNothing, kEnd };
    // Appends what arrives first before the deadline.
    Arrival receiveSome(std::string &bytes, Clock::time_point deadline);

    Socket socket_;
    sockaddr_in board_;
    Clock::time_point sendDeadline_ = Clock::now() + std::chrono::hours(1);
};

}  // namespace station
