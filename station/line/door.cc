#include "station/line/door.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <set>
#include <utility>

namespace station {
namespace {

constexpr char kUnknownWord[] = "QCSTATION";
constexpr std::string_view kAnswer = "UNKNOWN";
constexpr Milliseconds kPatience{3000};    // for the answer
constexpr Milliseconds kUsualAnswer{300};  // boards need much less
constexpr Milliseconds kGlance{50};        // how often the newcomers' time is looked at
constexpr Milliseconds kDescriptorPause{1000};
constexpr Milliseconds kReportPause{1000};
constexpr size_t kMost = 8, kMostOfMany = 64;  // on a cable of its own; where many boards connect
constexpr size_t kMostOfOne = 4;               // from one address there

bool isAnswer(const std::string &bytes) {
    return bytes.size() == kFrame && bytes.starts_with(kAnswer) &&
           bytes.find_first_not_of('\0', kAnswer.size()) == std::string::npos;
}

}  // namespace

Door::Door(Listener &listener, const Observers &observers)
    : listener_(listener),
      observers_(observers),
      cabled_(!listener.interface().empty()),
      most_(cabled_ ? kMost : kMostOfMany),
      wakeup_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void Door::wake() const {
    [[maybe_unused]] const int ignored = eventfd_write(wakeup_.descriptor(), 1);  // a full counter wakes as well
}

void Door::attend(bool accept, bool probe, Milliseconds limit) {
    refuseSurplus();
    if (Clock::now() >= nextReport_) report();
    const bool lets = accept && !full() && Clock::now() >= pausedUntil_;
    std::vector<pollfd> polled = {{wakeup_.descriptor(), POLLIN, 0}, {lets ? listener_.descriptor() : -1, POLLIN, 0}};
    for (const Newcomer &newcomer : newcomers_) {
        polled.push_back({newcomer.session.descriptor(), static_cast<short>(newcomer.board ? POLLRDHUP : POLLIN), 0});
    }
    poll(polled.data(), polled.size(), static_cast<int>((undecided() > 0 ? std::min(kGlance, limit) : limit).count()));
    eventfd_t count;
    [[maybe_unused]] const int ignored = eventfd_read(wakeup_.descriptor(), &count);
    if (lets) letIn();
    std::erase_if(newcomers_, [&](Newcomer &newcomer) { return !judge(newcomer, probe); });
}

size_t Door::undecided(const std::string &address) const {
    return static_cast<size_t>(std::ranges::count_if(newcomers_, [&](const Newcomer &one) {
        return !one.board && (address.empty() || one.session.peerAddress() == address);
    }));
}

void Door::letIn() try {
    for (size_t taken = 0; taken < most_ && !full(); ++taken) {
        std::optional<Session> session = listener_.take();
        if (!session) return;
        const std::string address = session->peerAddress();
        if (!cabled_ && address != kNoCable && undecided(address) >= kMostOfOne) {
            refuse(*session, fmt::format("{} connections of its address do not answer yet", kMostOfOne));
        } else {
            newcomers_.push_back({std::move(*session)});
        }
    }
} catch (const SessionError &error) {
    observers_.tell(&Observer::trouble, error.what());
    pausedUntil_ = Clock::now() + kDescriptorPause;
}

// Returns false when the newcomer is refused. While the room is full, it has less time to answer.
bool Door::judge(Newcomer &newcomer, bool probe) {
    std::string why;
    try {
        if (newcomer.board) {
            if (!newcomer.session.gone()) return true;
            throw SessionError("it has gone before its turn");
        }
        if (probe && !std::exchange(newcomer.asked, true)) newcomer.session.sendCommand(kUnknownWord);
        if (probe) newcomer.session.receiveNow(newcomer.answer, kFrame);
        newcomer.board = !probe || isAnswer(newcomer.answer);
        if (newcomer.board) return true;
        if (newcomer.answer.size() == kFrame) {
            why = fmt::format("it is no board: it said \"{}\"", newcomer.answer.c_str());  // without NUL padding
        } else if (Clock::now() - newcomer.since > (full() ? kUsualAnswer : kPatience)) {
            why = "it is no board: it does not answer";
        }
    } catch (const SessionError &error) {
        why = error.what();
    }
    if (!why.empty()) refuse(newcomer.session, why);
    return why.empty();
}

// Refuses each waiting board whose place another one waits for. The cable tells a board's place, or else its address.
void Door::refuseSurplus() {
    std::multiset<std::string> waiting;
    std::erase_if(newcomers_, [&](const Newcomer &newcomer) {
        if (!newcomer.board) return false;
        const std::string place = cabled_ ? "" : newcomer.session.peerAddress();
        const size_t room = place == kNoCable ? most_ : 1;
        const bool surplus = waiting.size() >= most_ || waiting.count(place) >= room;
        if (surplus) {
            refuse(newcomer.session, "another board waits at its place");
        } else {
            waiting.insert(place);
        }
        return surplus;
    });
}

void Door::refuse(const Session &stranger, const std::string &why) {
    refused_ = stranger.peer();
    why_ = why;
    ++unreported_;
    if (Clock::now() >= nextReport_) report();
}

void Door::report() {
    if (unreported_ == 0) return;
    const size_t others = std::exchange(unreported_, 0) - 1;
    observers_.tell(&Observer::strangerRefused, refused_,
                    others == 0 ? why_ : fmt::format("{} ({} more were refused)", why_, others));
    nextReport_ = Clock::now() + kReportPause;
}

void Door::handOver(const std::function<bool(Session &)> &seat) {
    std::erase_if(newcomers_, [&](Newcomer &newcomer) { return newcomer.board && seat(newcomer.session); });
}

size_t Door::expected() const {
    const auto young = Clock::now() - kUsualAnswer;
    return static_cast<size_t>(
        std::ranges::count_if(newcomers_, [&](const Newcomer &one) { return one.board || one.since > young; }));
}

std::string Door::boards() const {
    std::string text;
    for (const Newcomer &newcomer : newcomers_) text += newcomer.board ? " " + newcomer.session.peer() : "";
    return text;
}

}  // namespace station
