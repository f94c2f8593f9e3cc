#pragma once

#include "pool/include/nqPool.h"
#include "tests/pool/scriptedPoolWait.h"
#include "tests/unit/testSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace support {

using std::chrono::milliseconds;
using Reason = nq::nqAttempt::Reason;
using State = nq::nqOutcome::State;

/// A pool of plain workers on a scripted machine. Workers are numbered in the order of their
/// launches.
class PoolFixture : public testing::Test {
protected:
    PoolFixture()
    {
        options.worker = "/bin/true"; // has to be there; nobody runs it
        options.plainWorker = true;
        options.workers = 1;
        options.restartPause = milliseconds(0);
        machine.onSelect = [this] { return loseTheDead(); };
    }

    void TearDown() override
    {
        machine.onSelect = nullptr;
        for (auto& one : machine.processes)
            one->state = nq::nqProcess::Ended;
        for (auto& one : machine.pipes) {
            one->onEvents = nullptr;
            one->lose();
        }
        pool.reset();
    }

    void make()
    {
        pool = std::make_unique<nq::nqPool>(options);
    }

    nq::nqJobId submit(const std::string& job, const nq::nqJobOptions& own = {})
    {
        return pool->submit(
            job, own, [this](nq::nqOutcome&& told) { outcomes.push_back(std::move(told)); });
    }

    void pump(int times = 1)
    {
        for (int i = 0; i < times; ++i)
            pool->pump(milliseconds(0));
    }

    void advance(milliseconds time)
    {
        machine.advance(time);
    }

    static std::ptrdiff_t sleepsWithoutLimit()
    {
        const auto& sleeps = scripted::poolWait()->sleeps;
        return std::count(sleeps.begin(), sleeps.end(), milliseconds(-1));
    }

    void answer(std::size_t worker, const std::string& result)
    {
        machine.pipes.at(worker)->arrivals.push_back(frame(result));
        pump();
    }

    void endWorker(std::size_t worker, nq::nqProcess::End end)
    {
        machine.processes.at(worker)->state = nq::nqProcess::Ended;
        machine.processes.at(worker)->end = end;
        machine.pipes.at(worker)->lose();
    }

    void crash(std::size_t worker, int signal = 11)
    {
        nq::nqProcess::End end;
        end.mSignal = signal;
        endWorker(worker, end);
        pump();
    }

    /// What became of the only job when the kernel has ended its worker.
    nq::nqOutcome outcomeOfKilled(std::size_t worker)
    {
        machine.pipes.at(worker)->lose();
        pump();
        EXPECT_EQ(outcomes.size(), 1U);
        return outcomes.empty() ? nq::nqOutcome() : outcomes.front();
    }

    /// What the worker has been sent, frames included.
    std::string received(std::size_t worker) const
    {
        const auto& bytes = machine.pipes.at(worker)->passedOn;
        return {bytes.begin(), bytes.end()};
    }

    bool isKilled(std::size_t worker)
    {
        const std::string name = machine.processes.at(worker)->name;
        for (const std::string& call : machine.calls) {
            if (call == name + ": killProcess()")
                return true;
        }
        return false;
    }

    std::size_t launches() const
    {
        return machine.processes.size();
    }

    /// The kernel closes what a dead worker had open.
    int loseTheDead()
    {
        const std::size_t count = std::min(machine.processes.size(), machine.pipes.size());
        for (std::size_t i = 0; i < count; ++i) {
            if (machine.processes[i]->state == nq::nqProcess::Ended)
                machine.pipes[i]->lose();
        }
        return 0;
    }

    scripted::Machine machine;
    nq::nqPoolOptions options;
    std::unique_ptr<nq::nqPool> pool;
    std::vector<nq::nqOutcome> outcomes;
};

} // namespace support
