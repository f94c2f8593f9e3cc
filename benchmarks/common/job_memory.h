#pragma once

#include "benchmarks/common/job.h"

#include <utility>
#include <vector>

namespace bench {

/// The memory in which a host with a queue writes its jobs: one vector that is copied for each job,
/// or, where jobs are moved into the pool, the vectors that came back as results.
class JobMemory {
public:
    explicit JobMemory(bool moves)
        : mMoves(moves)
    {
    }

    /// Gives `push` the next job, as a constant to be copied or as an rvalue to be moved from.
    template <typename Push>
    void pushNext(Ledger& ledger, const Push& push)
    {
        if (mVectors.empty())
            mVectors.emplace_back(ledger.jobBytes(), 'x');
        ledger.stamp(mVectors.back().data());
        if (!mMoves) {
            push(std::as_const(mVectors.back()));
            return;
        }
        std::vector<char> job = std::move(mVectors.back());
        mVectors.pop_back();
        push(std::move(job));
    }

    /// Takes the memory of a checked result where jobs are moved.
    void takeBack(std::vector<char>& result)
    {
        if (mMoves)
            mVectors.push_back(std::move(result));
    }

private:
    bool mMoves;
    std::vector<std::vector<char>> mVectors;
};

} // namespace bench
