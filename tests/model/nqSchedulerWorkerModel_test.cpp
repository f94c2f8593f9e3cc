#include "tests/model/rounds.h"
#include "tests/model/workerRound.h"

#include <gtest/gtest.h>

namespace {

constexpr std::uint64_t usualRounds = 800;
constexpr int stepsPerRound = 500;

TEST(WorkerModel, agreesWithTheRecordAfterEveryStep)
{
    if (!common::RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool does not allow that memory is refused";
    model::playRounds<model::WorkerRound>(
        usualRounds,
        stepsPerRound,
        {"verdict: killed before, no second one",
         "verdict: over time",
         "verdict: over memory",
         "verdict: over both",
         "fate: read closed and ended",
         "fate: read closed but still there",
         "fate: healthy",
         "fate: not connected",
         "ready: bytes still leave",
         "ready: killed",
         "ready: no job",
         "ready: empty job",
         "ready: job",
         "restarted after a job",
         "header cut",
         "received while idle",
         "received part of a header",
         "received an empty result",
         "received part of a result",
         "received a result",
         "received a length that nobody has memory for",
         "supervised without a pipe",
         "failure 1",
         "failure 2",
         "failure 3"});
}

} // namespace
