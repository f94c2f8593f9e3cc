#include "tests/pool_chaos/job.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <stdexcept>
#include <sys/resource.h>
#include <unistd.h>

namespace pool_chaos {

namespace {

using nq::nqAttempt;
using nq::nqOutcome;
using Reason = nqAttempt::Reason;
using State = nqOutcome::State;

constexpr int longestWaitMs = 60'000; // a worker that waits for its end does not wait for ever
constexpr int slowMs = 3;
constexpr int exitStatus = 3;
constexpr std::size_t grownBytes = std::size_t{256} << 20;
constexpr std::uint64_t largePayload = 300'000;
constexpr std::uint64_t smallPayload = 200;

Behaviour chooseBehaviour(common::Random& random, bool grows)
{
    if (random.percent(60))
        return random.percent(90) ? Behaviour::answer : Behaviour::answerSlowly;
    if (grows && random.percent(8))
        return Behaviour::grow;
    return random.pick(
        {Behaviour::answer,
         Behaviour::answerNothing,
         Behaviour::crash,
         Behaviour::crashSometimes,
         Behaviour::exit,
         Behaviour::throwException,
         Behaviour::throwException,
         Behaviour::hang,
         Behaviour::empty,
         Behaviour::empty});
}

nq::nqRetryPolicy chooseRetry(common::Random& random)
{
    nq::nqRetryPolicy retry;
    retry.attempts = static_cast<unsigned>(1 + random.below(3));
    retry.pause = std::chrono::milliseconds(random.below(4));
    if (random.percent(30))
        retry.reasons = {Reason::Exception, Reason::Crashed};
    return retry;
}

void chooseOptions(common::Random& random, Job& job)
{
    if (random.percent(10))
        job.options.retry = chooseRetry(random);
    if (random.percent(5))
        job.options.deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(random.below(40));
    if (job.behaviour == Behaviour::hang || random.percent(3))
        job.options.timeout = std::chrono::milliseconds(5 + random.below(40));
}

void printLastWords(std::string_view job)
{
    std::fprintf(stderr, "%s\n", lastWordsOf(job).c_str());
}

[[noreturn]] void crash(std::string_view job)
{
    const rlimit none{0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
    std::signal(SIGSEGV, SIG_DFL); // a sanitizer would report it at length
    printLastWords(job);
    std::raise(SIGSEGV);
    std::abort();
}

/// Which one it is, is the kernel's business.
bool decidesToCrash()
{
    return std::chrono::steady_clock::now().time_since_epoch().count() % 2 == 0;
}

std::vector<char> reversed(std::string_view job)
{
    return {job.rbegin(), job.rend()};
}

Behaviour behaviourOf(std::string_view job)
{
    return job.empty() ? Behaviour::empty : static_cast<Behaviour>(job.front());
}

bool mayAnswer(Behaviour behaviour)
{
    return behaviour == Behaviour::answer || behaviour == Behaviour::answerSlowly ||
           behaviour == Behaviour::answerNothing || behaviour == Behaviour::crashSometimes ||
           behaviour == Behaviour::empty;
}

std::string faultOfResult(const Job& job, const nqOutcome& outcome)
{
    if (!mayAnswer(job.behaviour))
        return "a job is done that cannot be";
    const std::string_view bytes(job.bytes.data(), job.bytes.size());
    const bool isNothing = job.behaviour == Behaviour::answerNothing;
    if (outcome.bytes != (isNothing ? std::vector<char>() : reversed(bytes)))
        return "a result is not that of its job";
    return outcome.failureText().empty() ? "" : "a job that is done has a failure text";
}

bool canFailFor(const Job& job, Reason reason, const JobPlan& plan)
{
    switch (reason) {
    case Reason::Crashed:
        return job.behaviour == Behaviour::crash || job.behaviour == Behaviour::crashSometimes;
    case Reason::Exited:
        return job.behaviour == Behaviour::exit;
    case Reason::Exception:
        return job.behaviour == Behaviour::throwException;
    case Reason::MemoryCap:
        return job.behaviour == Behaviour::grow;
    case Reason::Timeout:
        return job.options.timeout.has_value() || plan.options.jobTimeout.count() != 0;
    case Reason::Deadline:
        return job.options.deadline.has_value();
    case Reason::None:
    case Reason::ResultLost:
    case Reason::NoWorker:
    case Reason::Cancelled:
    case Reason::Stopped:
    case Reason::Lost:
        return false;
    }
    return false;
}

/// Of one that has failed.
std::string faultOfAttempt(const Job& job, const nqAttempt& attempt, const JobPlan& plan)
{
    const std::string_view bytes(job.bytes.data(), job.bytes.size());
    if (!canFailFor(job, attempt.reason, plan))
        return "a job has failed for a reason that it cannot have: " + attempt.message;
    if (attempt.pid == 0 && attempt.reason != Reason::Deadline)
        return "nobody has tried it";
    if (attempt.reason == Reason::Crashed && attempt.signalName() != "SIGSEGV")
        return "a crash by another signal: " + attempt.signalName();
    if (attempt.reason == Reason::Exited && attempt.exitStatus != exitStatus)
        return "an exit with another status";
    if (attempt.reason == Reason::Exception && attempt.message != lastWordsOf(bytes))
        return "an exception says something else: " + attempt.message;
    const bool hasWords = attempt.reason == Reason::Crashed || attempt.reason == Reason::Exited;
    const bool areKept = plan.options.standardError == nq::nqPoolOptions::StandardError::Capture;
    if (hasWords && areKept && attempt.lastWords.find(lastWordsOf(bytes)) == std::string::npos)
        return "last words are missing or of another job: " + attempt.lastWords;
    return "";
}

bool isTriedAgain(const Job& job, Reason reason)
{
    const auto& reasons = job.retry.reasons;
    return std::find(reasons.begin(), reasons.end(), reason) != reasons.end();
}

std::string
faultOfAttempts(const Job& job, const nqOutcome& outcome, const JobPlan& plan, bool isStopAsked)
{
    for (const nqAttempt& attempt : outcome.earlierAttempts) {
        if (std::string fault = faultOfAttempt(job, attempt, plan); !fault.empty())
            return fault;
        if (!isTriedAgain(job, attempt.reason))
            return "it was tried again for a reason that its policy does not name";
    }
    const std::size_t made = outcome.earlierAttempts.size() + 1;
    if (made > job.retry.attempts)
        return "it was tried too often";
    if (!isStopAsked && outcome.state == State::Failed && outcome.reason != Reason::Deadline &&
        isTriedAgain(job, outcome.reason) && made < job.retry.attempts)
        return "it was given up too early";
    return "";
}

} // namespace

std::string lastWordsOf(std::string_view bytes)
{
    return "the end of " + std::string(bytes.substr(0, bytes.find('\n')));
}

Job makeJob(common::Random& random, const JobPlan& plan)
{
    Job job;
    job.behaviour = chooseBehaviour(random, plan.grows);
    chooseOptions(random, job);
    job.retry = job.options.retry.value_or(plan.options.retry);
    if (job.behaviour == Behaviour::empty)
        return job;
    const std::string head = static_cast<char>(job.behaviour) + std::to_string(random.below(~0ULL));
    job.bytes.assign(head.begin(), head.end());
    job.bytes.push_back('\n');
    const auto payload =
        random.bytes(random.below(random.percent(2) ? largePayload : smallPayload));
    job.bytes.insert(job.bytes.end(), payload.begin(), payload.end());
    return job;
}

std::vector<char> perform(std::string_view job)
{
    switch (behaviourOf(job)) {
    case Behaviour::answer:
    case Behaviour::empty:
        break;
    case Behaviour::answerSlowly:
        ::poll(nullptr, 0, slowMs);
        break;
    case Behaviour::answerNothing:
        return {};
    case Behaviour::crash:
        crash(job);
    case Behaviour::crashSometimes:
        if (decidesToCrash())
            crash(job);
        break;
    case Behaviour::exit:
        printLastWords(job);
        ::_exit(exitStatus);
    case Behaviour::throwException:
        throw std::runtime_error(lastWordsOf(job));
    case Behaviour::grow: {
        const std::vector<char> hoard(grownBytes, 'x'); // written to, thus resident
        ::poll(nullptr, 0, longestWaitMs);
        break;
    }
    case Behaviour::hang:
        ::poll(nullptr, 0, longestWaitMs);
        break;
    }
    return reversed(job);
}

std::string faultOf(const Job& job, const nqOutcome& outcome, const JobPlan& plan, bool isStopAsked)
{
    if (std::string fault = faultOfAttempts(job, outcome, plan, isStopAsked); !fault.empty())
        return fault;
    if (outcome.state == State::Done)
        return faultOfResult(job, outcome);
    if (outcome.bytes != job.bytes)
        return "a job does not come back as it was submitted";
    if (outcome.failureText().empty())
        return "no failure text";
    return outcome.state == State::Failed ? faultOfAttempt(job, outcome, plan) : "";
}

} // namespace pool_chaos
