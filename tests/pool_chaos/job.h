#pragma once

#include "nqPool.h"
#include "tests/common/random.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace pool_chaos {

/// What a job makes its worker do.
enum class Behaviour : char {
    answer = 'a',
    answerSlowly = 's',
    answerNothing = 'n', // an empty result
    crash = 'c',
    crashSometimes = 'o', // else it answers
    exit = 'e',
    throwException = 't',
    hang = 'h',
    grow = 'g', // beyond the memory cap, and hang
    empty = '-' // the job itself, and so its result
};

/// A job, and all that its outcome may say.
struct Job {
    Behaviour behaviour = Behaviour::answer;
    std::vector<char> bytes;
    nq::nqJobOptions options;
    nq::nqRetryPolicy retry; ///< that of the pool or its own
    bool mayTimeOut = false;
};

/// What the jobs of one round have in common.
struct JobPlan {
    nq::nqPoolOptions options;
    bool grows = false; ///< there is a memory cap that catches jobs
};

/// The marker that a worker prints to its standard error before it ends because of this job.
std::string lastWordsOf(std::string_view bytes);

Job makeJob(common::Random& random, const JobPlan& plan);

/// The worker's part.
std::vector<char> perform(std::string_view job);

/// Says what is wrong with an outcome of this job as far as it can be told from the two; empty when
/// nothing is. After a stop, no job is tried again.
std::string
faultOf(const Job& job, const nq::nqOutcome& outcome, const JobPlan& plan, bool isStopAsked);

} // namespace pool_chaos
