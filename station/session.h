#pragma once
// The station's end of the QC connection: listening, and the framing of commands, payloads and replies.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace station {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr char kDefaultAddress[] = "192.168.1.2";
constexpr uint16_t kDefaultPort = 55688;
constexpr size_t kFrame = 64;           // bytes of a padded command, and of a reply that fits
constexpr size_t kLongestReply = 1500;  // bytes, its NUL included

// What went wrong on the connection, in words for the line engineer.
struct SessionError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// An open socket. Movable, closed at the end of its life.
class Socket {
public:
    explicit Socket(int descriptor) : descriptor_(descriptor) {}
    ~Socket();
    Socket(Socket &&other) noexcept;
    Socket &operator=(Socket &&other) noexcept;
    int descriptor() const { return descriptor_; }

private:
    int descriptor_;
};

// Told how many bytes of a payload have been sent, and of how many.
using Progress = std::function<void(uint64_t sent, uint64_t total)>;

// One board's connection. Every call throws SessionError when the board closes or resets the connection.
class Session {
public:
    explicit Session(Socket socket) : socket_(std::move(socket)) {}

    // Every send throws when the board does not take everything before this; an hour from now on at first.
    void setSendDeadline(Clock::time_point deadline) { sendDeadline_ = deadline; }

    // Sends a command of at most 64 bytes, padded with NUL, so that a payload can follow at once.
    void sendCommand(std::string_view text);
    // Sends bytes as they are. `progress`, when set, is called after each part that was taken.
    void sendBytes(std::string_view bytes, const Progress &progress = {});
    void sendFile(const std::filesystem::path &path, const Progress &progress = {});

    // Receives one reply and returns its text. Throws when it does not arrive within the limit, or when its frame is
    // not exact: 64 bytes, NUL behind the text; or the text and one NUL when it is longer; and nothing behind that.
    std::string receiveReply(Milliseconds limit);

    // Waits for the board to close the connection. Throws when it sends something or does not close in time.
    void expectClose(Milliseconds limit);

    // Everything that arrives until the peer closes. Throws when it does not close in time.
    std::string receiveAll(Milliseconds limit);

    // Ends the connection with a reset instead of a close.
    void reset();

    std::string localAddress() const;  // this machine's, on this connection
    std::string peer() const;          // ADDRESS:PORT of the board, and %INTERFACE when it is bound to one
    std::string interface() const;     // that the connection is bound to; empty for none
    int descriptor() const { return socket_.descriptor(); }

private:
    enum class Arrival { kBytes, kNothing, kEnd };
    // Appends what arrives before the deadline.
    Arrival receiveSome(std::string &bytes, Clock::time_point deadline);

    Socket socket_;
    Clock::time_point sendDeadline_ = Clock::now() + std::chrono::hours(1);
};

class Listener {
public:
    // Listens at the address; with `interfaces`, on each of these apart, so that boards that all have one address can
    // be cabled to one interface each, and every interface of this machine can have the station's. Port 0 takes a free
    // one. Throws SessionError when that cannot be had.
    Listener(const std::string &address, uint16_t port, const std::vector<std::string> &interfaces = {});

    uint16_t port() const;

    // The next board, within the limit; throws SessionError when none connects.
    Session accept(Milliseconds limit);

    // True when a board is waiting to be accepted; false when `session` has something to receive and nothing came here
    // for `grace` after that, or at the deadline.
    bool waitForBoard(const Session &session, Clock::time_point deadline, Milliseconds grace) const;

private:
    // The index of a socket at which a board is waiting, before the deadline.
    std::optional<size_t> waiting(Clock::time_point deadline) const;

    std::vector<Socket> sockets_;
};

}  // namespace station
