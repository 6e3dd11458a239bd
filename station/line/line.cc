#include "station/line/line.h"

#include <thread>

namespace station {
namespace {

class Connection : public Board {
public:
    explicit Connection(Session session) : session_(std::move(session)) {}
    Session &session() override { return session_; }
    void reconnect(Clock::time_point) override { throw SessionError("the board did not come back"); }

private:
    Session session_;
};

RunRecord runBoard(Session session, const Plan &plan, const Place &place, const Context &context) {
    RunRecord run = newRun(plan, place);
    run.peer = session.peer();
    Connection board(std::move(session));
    context.observer.boardConnects(run);
    run = runPlan(board, plan, std::move(run), context);
    context.observer.boardEnds(run);
    return run;
}

}  // namespace

std::vector<RunRecord> runBoards(Listener &listener, const Plan &plan, int boards, Milliseconds wait,
                                 const Context &context) {
    const auto deadline = Clock::now() + wait;
    std::vector<RunRecord> results(static_cast<size_t>(boards));
    std::vector<std::thread> threads;
    for (int board = 1; board <= boards; ++board) {
        RunRecord &result = results[static_cast<size_t>(board) - 1];
        const Place place = {board, std::to_string(board)};
        try {
            const auto left = std::chrono::duration_cast<Milliseconds>(deadline - Clock::now());
            threads.emplace_back([&, place, session = listener.accept(left)]() mutable {
                result = runBoard(std::move(session), plan, place, context);
            });
        } catch (const SessionError &error) {
            result = newRun(plan, place);
            result.failure = error.what();
            result.end = result.start;
            context.observer.boardEnds(result);
        }
    }
    for (std::thread &thread : threads) thread.join();
    return results;
}

}  // namespace station
