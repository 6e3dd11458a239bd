#include "station/line/line.h"

#include <fmt/format.h>
#include <net/if.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "station/base/descriptor.h"

namespace station {
namespace {

constexpr char kNoCable[] = "127.0.0.1";
constexpr Milliseconds kLook{1000};   // how often records and cables are looked at
constexpr Milliseconds kGlance{50};   // while newcomers are on the way
constexpr Milliseconds kRetry{1000};  // to record the begin of a run

bool hasCarrier(const std::string &interface) {
    ifreq request{};
    interface.copy(request.ifr_name, sizeof request.ifr_name - 1);
    const Socket any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return ioctl(any.descriptor(), SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_RUNNING) != 0;
}

// True when the board has closed the connection while it waited.
bool hasGone(Session &session) {
    std::string nothing;
    try {
        session.receiveNow(nothing, 1);
        return false;
    } catch (const SessionError &) {
        return true;
    }
}

}  // namespace

Line::Line(Listener &listener, const std::vector<Place> &places, bool cabled, std::shared_ptr<const Job> job,
           const Context &context)
    : listener_(listener),
      context_(context),
      door_(listener, context_.observer),
      cabled_(cabled),
      wakeup_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      places_(places),
      job_(std::move(job)) {
    size_t socket = 0;
    for (const Place &place : places) seats_.emplace_back(place, cabled ? socket++ : 0, [this] { wake(); });
}

Outcome Line::run(int boards, Milliseconds wait) {
    wish_ = {false, boards, Clock::now() + wait};
    return work();
}

Outcome Line::serve() {
    wish_ = {};
    return work();
}

void Line::change(std::shared_ptr<const Job> job) {
    {
        const std::lock_guard lock(mutex_);
        job_ = std::move(job);
    }
    wake();
}

bool Line::hold(int number, bool held) {
    const auto place =
        std::find_if(places_.begin(), places_.end(), [&](const Place &one) { return one.number == number; });
    if (place == places_.end()) return false;
    {
        const std::lock_guard lock(mutex_);
        if (!(held ? held_.insert(number).second : held_.erase(number) > 0)) return true;
    }
    context_.observer.placeHeld(*place, held);
    wake();
    return true;
}

void Line::wake() const {
    [[maybe_unused]] const int ignored = eventfd_write(wakeup_.descriptor(), 1);  // a full counter wakes as well
}

Outcome Line::work() {
    context_.observer.lineStarts(places_);
    while (!over()) {
        await();
        look();
        adoptJob();
        for (Arrival &board : door_.tend()) place(std::move(board));
        collectEnded();
        startWaiting();
        tellWhyItWaits();
        tendGates();
    }
    nameLeftOut();
    missBoards();
    const std::lock_guard lock(mutex_);
    outcome_.unwritten = context_.records.away();
    return outcome_;
}

// The end comes when nobody is served, waits, or is on the way, and nobody can be any more.
bool Line::over() {
    const bool stopped = context_.stop.requested();
    if (!closing_ && (stopped || (!wish_.endless && (wish_.boards <= 0 || Clock::now() >= wish_.deadline)))) {
        closing_ = true;
        if (stopped) context_.observer.lineStops();
        tendGates();
    }
    if (!closing_ || !door_.quiet()) return false;
    const bool waits = std::any_of(seats_.begin(), seats_.end(),
                                   [&](const Seat &seat) { return seat.busy || (!seat.waiting.empty() && !stopped); });
    return !waits && (stopped || parked_.empty());
}

void Line::look() {
    if (Clock::now() - asked_ < kLook) return;
    asked_ = Clock::now();
    shorthanded_ = false;
    away_ = context_.records.away();
    watchCables();
}

void Line::tellWhyItWaits() {
    const std::string why = away_.empty() && shorthanded_ ? "no more threads can be made" : away_;
    if (std::exchange(told_, why) != why) context_.observer.lineWaits(why);
}

void Line::tendGates() {
    size_t expected = 0;
    for (size_t i = 0; i < door_.sockets(); ++i) expected += door_.expected(i);
    const bool takes =
        !closing_ && away_.empty() && !shorthanded_ && (wish_.endless || static_cast<size_t>(wish_.boards) > expected);
    std::vector<size_t> room(door_.sockets());
    for (const Seat &seat : seats_) {
        const bool vacant = !seat.busy && seat.waiting.empty() && (wish_.endless || !seat.served) && !held(seat);
        room[seat.socket()] += (takes && vacant) || seat.awaits() ? 1 : 0;
    }
    for (size_t i = 0; i < room.size(); ++i) door_.admit(i, room[i] > door_.expected(i));
}

void Line::await() const {
    std::vector<pollfd> polled = {{wakeup_.descriptor(), POLLIN, 0}};
    door_.addTo(polled);
    auto limit = std::min(Clock::now() + (door_.busy() || closing_ ? kGlance : kLook),
                          wish_.endless || closing_ ? Clock::time_point::max() : wish_.deadline);
    poll(polled.data(), polled.size(), pollLimit(limit));
    eventfd_t count;
    [[maybe_unused]] const int ignored = eventfd_read(wakeup_.descriptor(), &count);
}

void Line::place(Arrival arrival) {
    Seat *const seat = seatFor(arrival);
    if (seat == nullptr) {
        parked_.push_back(std::move(arrival));
        return;
    }
    seat->address = arrival.session.peerAddress();
    if (!seat->welcome(arrival.session)) seat->waiting.push_back(std::move(arrival.session));
}

Seat *Line::seatFor(const Arrival &arrival) {
    const std::string address = arrival.session.peerAddress();
    const auto find = [&](auto condition) {
        const auto seat = std::find_if(seats_.begin(), seats_.end(), condition);
        return seat == seats_.end() ? nullptr : &*seat;
    };
    if (cabled_) return find([&](const Seat &seat) { return seat.socket() == arrival.socket; });
    Seat *seat = find([&](const Seat &s) { return s.awaits() && s.address == address; });
    if (seat == nullptr && address != kNoCable) seat = find([&](const Seat &s) { return s.address == address; });
    return seat != nullptr ? seat : vacantSeat();
}

// One that nobody has sat on comes first, so that a board that comes again finds its own; then the one whose board has
// been gone for longest, which seats_ is kept in the order of.
Seat *Line::vacantSeat() {
    Seat *vacant = nullptr;
    for (Seat &seat : seats_) {
        if (seat.busy || !seat.waiting.empty() || (seat.served && !mayStart(seat)) || held(seat)) continue;
        if (!seat.served) return &seat;
        if (vacant == nullptr) vacant = &seat;
    }
    return vacant;
}

// A batch gives each place one run first; who comes again there waits until all boards have come.
bool Line::mayStart(const Seat &seat) const {
    return !seat.busy && (wish_.endless || !seat.served || closing_) && !held(seat);
}

bool Line::held(const Seat &seat) const {
    const std::lock_guard lock(mutex_);
    return held_.contains(seat.place().number);
}

void Line::startWaiting() {
    if (context_.stop.requested()) return;
    for (size_t i = parked_.size(); i > 0; --i) {
        Arrival arrival = std::move(parked_.front());
        parked_.pop_front();
        place(std::move(arrival));
    }
    for (Seat &seat : seats_) {
        if (seat.waiting.empty()) continue;
        if (seat.welcome(seat.waiting.front())) {
            seat.waiting.pop_front();
        } else if (mayStart(seat) && !shorthanded_) {
            shorthanded_ = !start(seat);
        }
    }
}

// False when no thread can be made for the board, which waits on.
bool Line::start(Seat &seat) {
    Session session = std::move(seat.waiting.front());
    seat.waiting.pop_front();
    if (hasGone(session)) {
        context_.observer.strangerRefused(seat.address, "it has gone before its turn");
        return true;
    }
    seat.sit(std::move(session));
    seat.busy = true;
    std::shared_ptr<const Job> job;
    {
        const std::lock_guard lock(mutex_);
        job = job_;
    }
    if (crew_.run([this, &seat, job] { serveBoard(seat, *job); })) {
        --wish_.boards;
        return true;
    }
    seat.busy = false;
    seat.waiting.push_front(std::move(seat.session()));
    return false;
}

void Line::adoptJob() {
    const std::lock_guard lock(mutex_);
    door_.setProbe(job_->plan.probe);
}

void Line::collectEnded() {
    std::vector<Seat *> ended;
    {
        const std::lock_guard lock(mutex_);
        ended.swap(ended_);
    }
    for (Seat *const seat : ended) {
        seat->busy = false;
        seat->served = seat->verdict = true;
        shorthanded_ = false;
        const auto self = std::find_if(seats_.begin(), seats_.end(), [&](const Seat &other) { return &other == seat; });
        seats_.splice(seats_.end(), seats_, self);
    }
}

void Line::watchCables() {
    if (!cabled_) return;
    for (Seat &seat : seats_) {
        const bool plugged = listener_.renew(seat.socket());
        if (std::exchange(seat.plugged, plugged) != plugged) {
            context_.observer.trouble(fmt::format("place {}: its interface {}", seat.place().name,
                                                  plugged ? "is there" : "is not there, or has no address"));
        }
        if (!seat.verdict || seat.busy || hasCarrier(listener_.interface(seat.socket()))) continue;
        seat.verdict = false;
        context_.observer.placeFree(seat.place());
    }
}

// Those that a batch has waited for in vain fail.
void Line::missBoards() {
    if (wish_.endless || context_.stop.requested()) return;
    for (const Seat &seat : seats_) {
        if (seat.served || wish_.boards-- <= 0) continue;
        RunRecord run = newRun(job_->plan, seat.place());
        run.failure = "no board connected";
        for (StepResult &step : run.steps) step.failure = "not run: no board connected";
        run.end = run.start;
        finish(run);
    }
}

void Line::nameLeftOut() {
    if (!context_.stop.requested()) return;
    std::string left;
    for (const Arrival &board : parked_) left += fmt::format(" {}", board.session.peer());
    for (const Seat &seat : seats_) {
        for (const Session &board : seat.waiting) left += fmt::format(" {}", board.peer());
    }
    const bool missing = !wish_.endless && wish_.boards > 0;
    if (!left.empty()) context_.observer.trouble("connected, but not served, start their service again:" + left);
    if (missing) context_.observer.trouble(fmt::format("{} of the boards had not connected", wish_.boards));
    outcome_.interrupted |= missing || !left.empty();
}

void Line::serveBoard(Seat &seat, const Job &job) {
    try {
        RunRecord run = newRun(job.plan, seat.place());
        run.peer = seat.session().peer();
        run.variables = job.variables;
        if (begin(run)) finish(runJob(seat, job, std::move(run)));
    } catch (const std::exception &error) {
        context_.observer.trouble(fmt::format("place {}: {}", seat.place().name, error.what()));
    }
    seat.leave();
    {
        const std::lock_guard lock(mutex_);
        ended_.push_back(&seat);
    }
    wake();
}

// False when the line stops before the run could be recorded.
bool Line::begin(const RunRecord &run) {
    std::string told;
    for (;;) {
        try {
            context_.records.begins(run);
            context_.observer.boardConnects(run);
            return true;
        } catch (const RecordsError &error) {
            if (std::exchange(told, error.what()) != error.what()) context_.observer.lineWaits(error.what());
        }
        if (!context_.stop.wait(kRetry)) continue;
        context_.observer.trouble("connected, but not served, start its service again: " + run.peer);
        const std::lock_guard lock(mutex_);
        outcome_.interrupted = true;
        return false;
    }
}

RunRecord Line::runJob(Seat &seat, const Job &job, RunRecord run) {
    run.failure = runHook(job.before, run);
    if (!run.failure.empty()) run.failure.insert(0, "before: ");
    if (run.failure.empty()) {
        run = runPlan(seat, job.plan, std::move(run), context_);
    } else {
        for (StepResult &step : run.steps) step.failure = "not run: the command before it failed";
    }
    run.end = WallClock::now();
    const std::string failure = runHook(job.after, run);
    if (!failure.empty()) run.failure += (run.failure.empty() ? "after: " : "; after: ") + failure;
    return run;
}

void Line::finish(const RunRecord &run) {
    try {
        context_.records.ends(run);
    } catch (const RecordsError &error) {
        context_.observer.trouble(fmt::format("the run {} is not recorded yet: {}", run.id, error.what()));
    }
    context_.units.release(run.unit);
    context_.observer.boardEnds(run);
    const std::lock_guard lock(mutex_);
    ++outcome_.runs;
    outcome_.failed += run.passed() ? 0 : 1;
    outcome_.counts = countsOf(run);
    outcome_.interrupted |= run.interrupted;
}

}  // namespace station
