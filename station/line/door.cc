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

bool isYoung(const Newcomer &newcomer) { return Clock::now() - newcomer.since < kUsualAnswer; }

}  // namespace

Door::Door(Listener &listener, Observer &observer)
    : listener_(listener), observer_(observer), wakeup_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

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
    poll(polled.data(), polled.size(), static_cast<int>((undecided() ? std::min(kGlance, limit) : limit).count()));
    eventfd_t count;
    [[maybe_unused]] const int ignored = eventfd_read(wakeup_.descriptor(), &count);
    if (lets) letIn();
    std::erase_if(newcomers_, [&](Newcomer &newcomer) { return !judge(newcomer, probe); });
}

size_t Door::most() const { return listener_.interface().empty() ? kMostOfMany : kMost; }

// Boards that wait do not count: they must not keep out a board that connects again.
bool Door::full() const {
    return static_cast<size_t>(std::count_if(newcomers_.begin(), newcomers_.end(),
                                             [](const Newcomer &one) { return !one.board; })) >= most();
}

// Returns true when this address already holds its share of a socket that many boards share.
bool Door::crowded(const std::string &address) const {
    if (!listener_.interface().empty() || address == kNoCable) return false;
    const auto same = [&](const Newcomer &one) { return !one.board && one.address == address; };
    return static_cast<size_t>(std::count_if(newcomers_.begin(), newcomers_.end(), same)) >= kMostOfOne;
}

void Door::letIn() try {
    for (size_t taken = 0; taken < most() && !full(); ++taken) {
        std::optional<Session> session = listener_.take();
        if (!session) return;
        std::string peer = session->peer(), address = session->peerAddress();
        Newcomer newcomer{std::move(*session), std::move(peer), std::move(address), Clock::now()};
        if (crowded(newcomer.address)) {
            refuse(newcomer, fmt::format("{} connections of its address do not answer yet", kMostOfOne));
        } else {
            newcomers_.push_back(std::move(newcomer));
        }
    }
} catch (const SessionError &error) {
    observer_.trouble(error.what());
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
    if (!why.empty()) refuse(newcomer, why);
    return why.empty();
}

// Refuses each waiting board whose place another one waits for. The cable tells a board's place, or else its address.
void Door::refuseSurplus() {
    const bool cabled = !listener_.interface().empty();
    std::set<std::string> places;
    size_t others = 0;
    std::erase_if(newcomers_, [&](const Newcomer &newcomer) {
        if (!newcomer.board) return false;
        const bool anonymous = !cabled && newcomer.address == kNoCable;
        if (anonymous ? ++others <= most()
                      : places.size() < most() && places.insert(cabled ? "" : newcomer.address).second)
            return false;
        refuse(newcomer, "another board waits at its place");
        return true;
    });
}

void Door::refuse(const Newcomer &stranger, const std::string &why) {
    refused_ = stranger.peer;
    why_ = why;
    ++unreported_;
    if (Clock::now() >= nextReport_) report();
}

void Door::report() {
    if (unreported_ == 0) return;
    const size_t others = std::exchange(unreported_, 0) - 1;
    observer_.strangerRefused(refused_, others == 0 ? why_ : fmt::format("{} ({} more were refused)", why_, others));
    nextReport_ = Clock::now() + kReportPause;
}

void Door::handOver(const std::function<bool(Newcomer &)> &seat) {
    std::erase_if(newcomers_, [&](Newcomer &newcomer) { return newcomer.board && seat(newcomer); });
}

size_t Door::expected() const {
    return static_cast<size_t>(std::count_if(newcomers_.begin(), newcomers_.end(),
                                             [](const Newcomer &one) { return one.board || isYoung(one); }));
}

bool Door::undecided() const {
    return std::any_of(newcomers_.begin(), newcomers_.end(), [](const Newcomer &one) { return !one.board; });
}

std::string Door::boards() const {
    std::string text;
    for (const Newcomer &newcomer : newcomers_) text += newcomer.board ? " " + newcomer.peer : "";
    return text;
}

}  // namespace station
