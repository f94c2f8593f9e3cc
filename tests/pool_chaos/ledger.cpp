#include "tests/pool_chaos/ledger.h"

#include "tests/chaos/violation.h"

#include <ostream>
#include <string>

namespace pool_chaos {

namespace {

using nq::nqPoolOptions;
using Reason = nq::nqAttempt::Reason;
using State = nq::nqOutcome::State;

constexpr const char* names[] = {
    "done",
    "crashed",
    "exited",
    "memory cap",
    "time-out",
    "deadline",
    "exception",
    "result lost",
    "no worker",
    "cancelled",
    "stopped"};

/// Nothing here makes a host run out of memory or of workers.
bool canHappen(Reason reason)
{
    return reason != Reason::ResultLost && reason != Reason::NoWorker;
}

} // namespace

Figures& figures()
{
    static Figures all;
    return all;
}

void print(std::ostream& out)
{
    const Figures& all = figures();
    out << "rounds " << all.rounds << ", jobs " << all.jobs << ", retried " << all.retried
        << ", refused " << all.refused << ", cancels " << all.cancels << ", stops " << all.stops
        << '\n';
    for (std::size_t reason = 0; reason < std::size(names); ++reason)
        out << "  " << names[reason] << ": " << all.outcomes[reason] << '\n';
}

void requireVariety()
{
    const Figures& all = figures();
    for (std::size_t reason = 0; reason < std::size(names); ++reason) {
        if (canHappen(static_cast<Reason>(reason)) && all.outcomes[reason] == 0)
            chaos::reportViolation(std::string("no job was ") + names[reason]);
    }
    if (all.retried == 0 || all.refused == 0 || all.stops == 0)
        chaos::reportViolation("too little has happened");
}

void settle(
    const Job& job,
    const nq::nqOutcome& outcome,
    const JobPlan& plan,
    bool isCancelAsked,
    bool isStopAsked)
{
    chaos::tellProgress();
    const auto reject = [&](const std::string& fault) {
        chaos::reportViolation(
            fault + " (job " + std::to_string(outcome.id) + ", behaviour " +
            static_cast<char>(job.behaviour) + ", reason " +
            names[static_cast<std::size_t>(outcome.reason)] + ')');
    };
    if (const std::string fault = faultOf(job, outcome, plan, isStopAsked); !fault.empty())
        reject(fault);
    const bool isCancelled = outcome.state == State::Cancelled;
    if (isCancelled && outcome.reason == Reason::Cancelled && !isCancelAsked)
        reject("nobody has cancelled it");
    if (isCancelled && outcome.reason == Reason::Stopped && !isStopAsked)
        reject("nobody has stopped the pool");
    ++figures().outcomes[static_cast<std::size_t>(outcome.reason)];
    figures().retried += outcome.earlierAttempts.size();
}

JobPlan makePlan(common::Random& random)
{
    JobPlan plan;
    nqPoolOptions& options = plan.options;
    options.workers = static_cast<unsigned>(1 + random.below(4));
    options.restartPause = std::chrono::milliseconds(1);
    options.longestRestartPause = std::chrono::milliseconds(8);
    plan.grows = random.percent(25);
    if (plan.grows)
        options.memoryCap = std::uint64_t{160} << 20;
    if (random.percent(30))
        options.recycleAfterJobs = static_cast<unsigned>(1 + random.below(20));
    if (random.percent(20))
        options.recycleAfter = std::chrono::milliseconds(1 + random.below(50));
    if (random.percent(50))
        options.maxPendingJobs = 1 + random.below(20);
    if (random.percent(30))
        options.whenFull = nqPoolOptions::WhenFull::Refuse;
    if (random.percent(50))
        options.order = nqPoolOptions::Order::Submission;
    if (random.percent(20))
        options.standardError = nqPoolOptions::StandardError::NullDevice;
    options.retry.attempts = static_cast<unsigned>(1 + random.below(3));
    options.retry.pause = std::chrono::milliseconds(random.below(3));
    return plan;
}

} // namespace pool_chaos
