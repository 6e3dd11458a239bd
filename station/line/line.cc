#include "station/line/line.h"

#include <fmt/format.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <optional>
#include <thread>
#include <utility>

#include "station/base/text.h"

namespace station {
namespace {

constexpr Milliseconds kLook{1000};      // how often records and cables are looked at
constexpr Milliseconds kLastLook{20};    // while a gate is to close
constexpr Milliseconds kLastCall{1000};  // for handshakes under way when no more boards are wanted
constexpr Milliseconds kRetry{1000};     // to record the begin of a run

bool hasCarrier(const std::string &interface) {
    ifreq request{};
    interface.copy(request.ifr_name, sizeof request.ifr_name - 1);
    const Descriptor any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return ioctl(any.descriptor(), SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_RUNNING) != 0;
}

// Returns what is wrong with the answer; empty: nothing.
std::string faultOfAnswer(const std::string &answer, const AskWho &ask) {
    if (answer.empty()) return "an answer is needed";
    if (!ask.match || ask.match->find(answer)) return {};
    return "\"" + shorten(answer, kQuoted) + "\" does not look right: scan or type it again";
}

}  // namespace

// A socket and its places.
struct Line::Gate {
    Gate(Listener &listener, const Observers &observers) : cable(listener.interface()), door(listener, observers) {}

    const std::string cable;  // the interface of its one place; empty: its places share a network
    Door door;                // but for wake(), its thread's alone
    std::vector<Seat *> seats;
    std::jthread thread;
    Clock::time_point looked;               // its thread's: at the cable
    bool plugged = true;                    // its thread's: the interface is there
    bool powered = false;                   // its thread's: the interface has a carrier
    std::optional<Clock::time_point> last;  // its thread's: nobody is let in from then on
    size_t expected = 0;                    // guarded by the line's mutex: boards that are likely to get a place
};

// A place and the board that is served there.
struct Line::Seat : Board {
    Seat(Line &all, Gate &where, Place name) : line(all), gate(where), place(std::move(name)) {}

    Session &session() override { return *served; }
    void reconnect(Clock::time_point deadline) override {
        Lock lock(line.mutex_);
        awaits = true;
        gate.door.wake();
        changed.waitUntil(lock, deadline, [&] { return next.has_value(); });
        awaits = false;
        if (!next) throw SessionError("the board did not connect again in time");
        served = std::exchange(next, std::nullopt);
    }

    bool linked() const override { return gate.cable.empty() || hasCarrier(gate.cable); }

    Line &line;
    Gate &gate;
    const Place place;
    std::jthread thread;
    std::optional<Session> served;  // its thread's
    int failed = 0;                 // its thread's: units in a row

    // Guarded by the line's mutex:
    Condition changed;
    std::optional<Session> next;  // handed over by the gate
    std::string address;          // of the last board's connection
    bool busy = false;
    bool awaits = false;  // the plan waits for the board's next connection
    bool held = false;
    bool verdict = false;          // the board that has had its run may still be there
    Clock::time_point ended = {};  // of the last run; none yet
    bool had() const { return ended != Clock::time_point{}; }
};

// The next actions of a gate.
struct Line::Orders {
    bool admit = false;   // new connections
    bool accept = false;  // those that wait in the kernel
    bool probe = true;
    bool last = false;  // end when nobody is there or on the way
};

// The answers to who works at the line.
struct Line::Staff {
    // Returns who works at the run's place. Asks if the last answer is too old, and repeats the question until the
    // answer is right. An answer at another place counts, too, unless each place asks for itself. Throws what `people`
    // throws.
    std::string at(const RunRecord &run, const AskWho &ask, Operator &people, const Needless &needless) {
        const std::string where = ask.eachPlace ? run.place.name : "";
        const auto known = [&]() -> std::string {
            const Lock lock(mutex);
            const auto &[name, since] = answers[where];
            return Clock::now() < since + ask.within ? name : "";
        };
        const auto answered = [&] { return known().empty() ? needless() : "somebody has answered"; };
        const auto deadline = Clock::now() + kAnswerTime;
        std::string problem, name;
        while ((name = known()).empty()) try {
                const std::string answer = oneLine(trim(people.ask(run, 0, ask.prompt, problem, deadline, answered)));
                problem = faultOfAnswer(answer, ask);
                const Lock lock(mutex);
                if (problem.empty()) answers[where] = {answer, Clock::now()};
            } catch (const std::runtime_error &) {
                if (known().empty()) throw;
            }
        return name;
    }

    Mutex mutex;
    // The name and when it was given, by the place's name; "": the line's.
    std::map<std::string, std::pair<std::string, Clock::time_point>> answers GUARDED_BY(mutex);
};

std::string Outcome::describe() const {
    return fmt::format("{} boards, {} failed{}", runs, failed,
                       again > 0 ? fmt::format(", {} to be tested again", again) : "");
}

Line::Line(std::vector<Listener> &listeners, const std::vector<Place> &places, std::shared_ptr<const Job> job,
           const Context &context)
    : context_(context), staff_(std::make_unique<Staff>()), places_(places), job_(std::move(job)) {
    for (Listener &listener : listeners) gates_.emplace_back(listener, context_.observers);
    auto gate = gates_.begin();
    for (const Place &place : places) {
        gate->seats.push_back(&seats_.emplace_back(*this, *gate, place));
        if (!listeners.front().interface().empty()) ++gate;
    }
}

Line::~Line() { endThreads(); }

Outcome Line::run(int boards, Milliseconds wait) {
    endless_ = false;
    wanted_ = boards;
    deadline_ = Clock::now() + wait;
    return serve();
}

std::shared_ptr<const Job> Line::change(std::shared_ptr<const Job> job) {
    const Lock lock(mutex_);
    return std::exchange(job_, std::move(job));
}

bool Line::hold(int number, bool held) {
    const auto seat = std::ranges::find(seats_, number, [](const Seat &one) { return one.place.number; });
    if (seat == seats_.end()) return false;
    {
        const Lock lock(mutex_);
        if (std::exchange(seat->held, held) == held) return true;
    }
    context_.observers.tell(&Observer::placeHeld, seat->place, held);
    seat->gate.door.wake();
    return true;
}

void Line::wake() {
    { const Lock lock(mutex_); }  // the waiting thread has either not looked yet, or is notified
    for (const Gate &gate : gates_) gate.door.wake();
    changed_.notifyAll();
}

// ---- the calling thread

Outcome Line::serve() {
    context_.observers.tell(&Observer::lineStarts, places_);
    lookAtRecords();
    open_ = gates_.size();
    for (Seat &seat : seats_) seat.thread = std::jthread([&] { tendSeat(seat); });
    for (Gate &gate : gates_) gate.thread = std::jthread([&] { tendGate(gate); });
    while (look()) {
    }
    endThreads();
    nameLeftOut();
    missBoards();
    outcome_.unwritten = context_.records.away();
    return outcome_;
}

// Looks whether records can be kept; if so, late ones have been written. Returns whether that has changed.
bool Line::lookAtRecords() {
    const std::string why = context_.records.away();
    for (const char *const late : {"the run ", "the result of the run "}) {
        if (why.empty()) context_.observers.tell(&Observer::mended, std::string(late));
    }
    {
        const Lock lock(mutex_);
        if (std::exchange(away_, why) == why) return false;
    }
    context_.observers.tell(&Observer::lineWaits, why);
    return true;
}

// Waits for a change, then looks at the deadline, the stop and the records. Returns false when all gates are closed.
bool Line::look() {
    bool closed = false;
    {
        Lock lock(mutex_);
        const auto next = std::min(Clock::now() + kLook, closed_ ? Clock::time_point::max() : deadline_);
        changed_.waitUntil(lock, next,
                           [&]() REQUIRES(mutex_) { return open_ == 0 || stopped_ != context_.stop.requested(); });
        if (open_ == 0) return false;
        closed = closed_ |= context_.stop.requested() || Clock::now() >= deadline_;
    }
    if (context_.stop.requested() && !std::exchange(stopped_, true)) context_.observers.tell(&Observer::lineStops);
    if (lookAtRecords() || closed) wake();
    return true;
}

// Ends all threads. Boards in work have been served already: only then does look() return.
void Line::endThreads() {
    {
        const Lock lock(mutex_);
        ended_ = true;
        for (Seat &seat : seats_) seat.changed.notifyAll();
    }
    wake();
    for (Gate &gate : gates_) gate.thread = {};
    for (Seat &seat : seats_) seat.thread = {};
}

void Line::nameLeftOut() {
    if (!context_.stop.requested()) return;
    const bool missing = !endless_ && wanted_ > 0;
    if (!left_.empty())
        context_.observers.tell(&Observer::trouble, "connected, but not served, start their service again:" + left_);
    if (missing)
        context_.observers.tell(&Observer::trouble, fmt::format("{} of the boards had not connected", wanted_));
    outcome_.interrupted |= missing || !left_.empty();
}

// Records a failed run for each board of a batch that never connected.
void Line::missBoards() {
    if (endless_ || context_.stop.requested()) return;
    for (const Seat &seat : seats_) {
        if (seat.had() || wanted_-- <= 0) continue;
        RunRecord run = newRun(job_->plan, seat.place);
        run.failure = "no board connected";
        run.cause = Cause::kConnection;
        for (StepResult &step : run.steps) step.failure = "not run: no board connected";
        run.end = run.start;
        finish(run);
    }
}

// ---- the thread of a socket

void Line::tendGate(Gate &gate) {
    for (;;) {
        const Orders orders = decide(gate);
        gate.door.listener().admit(orders.admit);
        if (orders.last) {
            if (!gate.last) gate.last = Clock::now() + kLastCall;
            const bool over = Clock::now() >= *gate.last;
            if (!gate.door.undecided() && (over || gate.door.listener().quiet())) break;
            gate.door.attend(!over, orders.probe, kLastLook);
        } else {
            gate.door.attend(orders.accept, orders.probe, kLook);
        }
        watchCable(gate);
    }
    gate.door.report();
    const Lock lock(mutex_);
    left_ += gate.door.boards();
    --open_;
    changed_.notifyAll();
}

// Hands over the boards that have turned up, and returns what the gate does next.
Line::Orders Line::decide(Gate &gate) {
    const Lock lock(mutex_);
    gate.door.handOver([&](Session &board) REQUIRES(mutex_) { return seat(gate, board); });
    gate.expected = std::min(gate.door.expected(), gate.seats.size());  // a flood here closes no other gate
    size_t expected = 0;
    for (const Gate &other : gates_) expected += other.expected;
    const bool wants = !closing() && (endless_ || static_cast<size_t>(wanted_) > expected);
    size_t room = 0;
    bool idle = true;
    Orders orders;
    orders.probe = job_->plan.probe;
    for (const Seat *const seat : gate.seats) {
        idle &= !seat->busy;
        const bool usable = seat->awaits ? !seat->next : mayStart(*seat);
        orders.accept |= usable;
        room += usable && (seat->awaits || (wants && (endless_ || !seat->had()))) ? 1 : 0;
    }
    orders.admit = room > gate.expected;
    // Stays open for a board that waits until records can be kept; after a stop nameLeftOut() names that board.
    orders.last = ended_ || (closing() && idle && (context_.stop.requested() || gate.door.boards().empty()));
    return orders;
}

// Gives the board a place. Returns false if no place takes it.
bool Line::seat(const Gate &gate, Session &board) {
    const std::string address = board.peerAddress();
    Seat *const seat = seatFor(gate, address);
    if (seat == nullptr) return false;
    if (!seat->awaits) --wanted_;
    seat->busy = true;
    seat->address = address;
    seat->next.emplace(std::move(board));
    seat->changed.notifyAll();
    return true;
}

// Returns the board's place, or null if no place is free for it. If several are, prefers one that has had no board yet,
// so that boards that come again find their own; otherwise the one whose run ended first.
Line::Seat *Line::seatFor(const Gate &gate, const std::string &address) {
    const bool tells = gate.seats.size() > 1 && address != kNoCable;
    Seat *vacant = nullptr;
    for (Seat *const seat : gate.seats) {
        const bool own = gate.seats.size() == 1 || seat->address == address;
        if (seat->awaits && !seat->next && own) return seat;
        if (tells && own) return mayStart(*seat) ? seat : nullptr;
        if (mayStart(*seat) && (vacant == nullptr || seat->ended < vacant->ended)) vacant = seat;
    }
    return vacant;
}

void Line::watchCable(Gate &gate) {
    if (gate.cable.empty() || Clock::now() - gate.looked < kLook) return;
    gate.looked = Clock::now();
    Seat &seat = *gate.seats.front();
    const bool plugged = gate.door.listener().renew(), powered = hasCarrier(gate.cable);
    const std::string missing = fmt::format("the interface {} is missing, or has no address", gate.cable);
    if (std::exchange(gate.plugged, plugged) != plugged)
        context_.observers.tell(&Observer::placeBlocked, seat.place, plugged ? "" : missing);
    if (std::exchange(gate.powered, powered) != powered)
        context_.observers.tell(&Observer::placePowered, seat.place, powered);
    if (powered) return;
    {
        const Lock lock(mutex_);
        if (seat.busy || !std::exchange(seat.verdict, false)) return;
    }
    context_.observers.tell(&Observer::placeFree, seat.place);
}

bool Line::closing() const { return closed_ || ended_ || (!endless_ && wanted_ <= 0) || context_.stop.requested(); }

// A batch first gives each place one run. A board that comes again waits until all boards have come.
bool Line::mayStart(const Seat &seat) const {
    return !seat.busy && !seat.held && away_.empty() && !ended_ && !context_.stop.requested() &&
           (endless_ || !seat.had() || closing());
}

// ---- the thread of a place

void Line::tendSeat(Seat &seat) {
    for (Lock lock(mutex_);;) {
        seat.changed.wait(lock, [&]() REQUIRES(mutex_) { return seat.next || ended_; });
        if (!seat.next) return;
        seat.served = std::exchange(seat.next, std::nullopt);
        const std::shared_ptr<const Job> job = job_;
        lock.unlock();
        serveBoard(seat, *job);
        seat.served.reset();
        lock.lock();
        seat.busy = false;
        seat.verdict = true;
        seat.ended = Clock::now();
        seat.gate.door.wake();
    }
}

void Line::serveBoard(Seat &seat, const Job &job) try {
    RunRecord run = newRun(job.plan, seat.place);
    run.peer = seat.session().peer();
    run.variables = job.variables;
    if (!begin(run)) return;
    run = runJob(seat, job, std::move(run));
    finish(run);
    holdAfter(seat, job, run);
} catch (const std::exception &error) {
    context_.units.releaseAt(seat.place);
    context_.observers.tell(&Observer::trouble, fmt::format("place {}: {}", seat.place.name, error.what()));
}

// Returns false when the line stops before the run could be recorded.
bool Line::begin(const RunRecord &run) {
    std::string told;
    for (;;) {
        try {
            context_.records.begins(run);
            if (!told.empty()) context_.observers.tell(&Observer::lineWaits, context_.records.away());
            context_.observers.tell(&Observer::boardConnects, run);
            return true;
        } catch (const RecordsError &error) {
            if (std::exchange(told, error.what()) != error.what())
                context_.observers.tell(&Observer::lineWaits, error.what());
        }
        if (!context_.stop.wait(kRetry)) continue;
        context_.observers.tell(&Observer::trouble, "connected, but not served, start its service again: " + run.peer);
        const Lock lock(mutex_);
        outcome_.interrupted = true;
        return false;
    }
}

// Asks who works at the place, if the line wants to know. Sets the run's operator, or its failure.
void Line::askWho(Seat &seat, const Job &job, RunRecord &run) try {
    const auto needless = [&]() -> std::string {
        if (context_.stop.requested()) return "the station was stopped";
        return seat.session().gone() ? "the board has gone" : "";
    };
    if (!job.who.prompt.empty()) run.operatorName = staff_->at(run, job.who, context_.operators, needless);
} catch (const std::runtime_error &error) {
    run.failure = fmt::format("nobody said who works here: {}", error.what());
    run.cause = seat.session().gone() ? Cause::kConnection : Cause::kOperator;
    run.interrupted = context_.stop.requested();
}

// Holds the place after too many failed units in a row: the fault may be the place's.
void Line::holdAfter(Seat &seat, const Job &job, const RunRecord &run) {
    if (!run.counts()) return;
    seat.failed = run.passed() ? 0 : seat.failed + 1;
    if (job.holdAfter == 0 || seat.failed < job.holdAfter) return;
    context_.observers.tell(&Observer::trouble,
                            fmt::format("{} is held: {} runs in a row failed there. Find out why, then release it",
                                        nameOf(seat.place), std::exchange(seat.failed, 0)));
    hold(seat.place.number, true);
}

RunRecord Line::runJob(Seat &seat, const Job &job, RunRecord run) {
    Context context = context_;
    context.reference = job.reference;
    askWho(seat, job, run);
    const auto call = [&run](const char *when, const Hook &hook) {
        const std::string failure = runHook(hook, run, when);
        if (failure.empty()) return;
        run.failure += (run.failure.empty() ? "" : "; ") + failure;
        if (run.cause == Cause::kNone) run.cause = Cause::kStation;
    };
    if (run.failure.empty()) call("before", job.before);
    if (run.failure.empty()) {
        run = runPlan(seat, job.plan, std::move(run), context);
    } else {
        for (StepResult &step : run.steps) step.failure = "not run: something before the steps failed";
    }
    run.stampEnd();
    call("after", job.after);
    return run;
}

void Line::finish(const RunRecord &run) {
    try {
        context_.records.ends(run);
    } catch (const RecordsError &error) {
        context_.observers.tell(&Observer::trouble,
                                fmt::format("the run {} is not recorded yet: {}", run.id, error.what()));
    }
    context_.units.ended(run);
    context_.observers.tell(&Observer::boardEnds, run);
    const Lock lock(mutex_);
    ++outcome_.runs;
    outcome_.failed += run.passed() || run.again() ? 0 : 1;
    outcome_.again += run.again() ? 1 : 0;
    outcome_.counts = countsOf(run);
    outcome_.interrupted |= run.interrupted;
}

}  // namespace station
