#include "station/line/doorway.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace station {
namespace {

constexpr char kUnknownWord[] = "QCSTATION";
constexpr std::string_view kAnswer = "UNKNOWN";
constexpr Milliseconds kPatience{3000};    // for the answer
constexpr Milliseconds kUsualAnswer{300};  // boards need much less
constexpr Milliseconds kDescriptorPause{1000};
constexpr size_t kMostNewcomers = 256;

bool isAnswer(const std::string &bytes) {
    return bytes.size() == kFrame && bytes.starts_with(kAnswer) &&
           bytes.find_first_not_of('\0', kAnswer.size()) == std::string::npos;
}

}  // namespace

void Doorway::addTo(std::vector<pollfd> &polled) const {
    for (const Newcomer &newcomer : newcomers_) {
        polled.push_back({newcomer.arrival.session.descriptor(), POLLIN, 0});
    }
    if (newcomers_.size() >= kMostNewcomers || Clock::now() < pausedUntil_) return;
    for (size_t i = 0; i < listener_.sockets(); ++i) polled.push_back({listener_.descriptor(i), POLLIN, 0});
}

std::vector<Arrival> Doorway::tend() {
    for (size_t i = 0; i < listener_.sockets(); ++i) letIn(i);
    std::vector<Arrival> boards;
    std::vector<Newcomer> undecided;
    for (Newcomer &newcomer : newcomers_) {
        bool board = false;
        if (!judge(newcomer, board)) {
            undecided.push_back(std::move(newcomer));
        } else if (board) {
            boards.push_back(std::move(newcomer.arrival));
        }
    }
    newcomers_ = std::move(undecided);
    return boards;
}

void Doorway::letIn(size_t socket) try {
    while (newcomers_.size() < kMostNewcomers && Clock::now() >= pausedUntil_) {
        std::optional<Session> session = listener_.take(socket);
        if (!session) return;
        const std::string peer = session->peer();
        newcomers_.push_back({{socket, std::move(*session)}, peer, Clock::now(), {}, false});
    }
} catch (const SessionError &error) {
    observer_.trouble(error.what());
    pausedUntil_ = Clock::now() + kDescriptorPause;
}

bool Doorway::judge(Newcomer &newcomer, bool &board) {
    board = !probe_;
    if (board) return true;
    std::string why;
    try {
        if (!std::exchange(newcomer.asked, true)) newcomer.arrival.session.sendCommand(kUnknownWord);
        newcomer.arrival.session.receiveNow(newcomer.answer, kFrame);
        board = isAnswer(newcomer.answer);
        if (board) return true;
        if (newcomer.answer.size() == kFrame) {
            // Without what fills the frame behind its text.
            why = fmt::format("it is no board: it said \"{}\"", newcomer.answer.c_str());
        }
        if (Clock::now() - newcomer.since > kPatience) why = "it is no board: it does not answer";
    } catch (const SessionError &error) {
        why = error.what();
    }
    if (!why.empty()) observer_.strangerRefused(newcomer.peer, why);
    return !why.empty();
}

size_t Doorway::expected(size_t socket) const {
    return static_cast<size_t>(std::count_if(newcomers_.begin(), newcomers_.end(), [&](const Newcomer &newcomer) {
        return newcomer.arrival.socket == socket && Clock::now() - newcomer.since < kUsualAnswer;
    }));
}

}  // namespace station
