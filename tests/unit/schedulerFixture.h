#pragma once

#include "include/nqScheduler.h"
#include "tests/common/failure.h"
#include "tests/unit/testSupport.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace support {

using common::Failure;
using common::failures;

/// A scheduler on a scripted machine, with a logger. Workers leave when their pipe is closed.
class SchedulerFixture : public testing::Test {
protected:
    static constexpr int connectionTimeout = 5000;

    scripted::Machine machine;
    Logger logger;
    std::unique_ptr<nq::nqScheduler> scheduler = newScheduler();

    /// Lets the scheduler's destructor end: no job waits, and every worker is dead.
    void TearDown() override
    {
        logger.onWrite = nullptr;
        machine.onSelect = nullptr;
        for (auto& one : machine.processes)
            one->state = nq::nqProcess::Ended;
        for (auto& one : machine.pipes) {
            one->onEvents = nullptr;
            one->lose();
        }
        if (scheduler != nullptr)
            scheduler->clearPendingJobs();
    }

    static std::unique_ptr<nq::nqScheduler> newScheduler()
    {
        return std::make_unique<nq::nqScheduler>(
            "/opt/w/worker", true, std::vector<std::string>{}, true);
    }

    /// Starts `count` workers and forgets the calls that this took.
    void start(unsigned long count)
    {
        ASSERT_TRUE(scheduler->startScheduler(count, connectionTimeout));
        forgetCalls();
    }

    void forgetCalls()
    {
        machine.calls.clear();
        machine.trace.clear();
    }

    scripted::Process& process(std::size_t index)
    {
        return *machine.processes.at(index);
    }
    scripted::Pipe& pipe(std::size_t index)
    {
        return *machine.pipes.at(index);
    }

    /// The worker is dead, and its pipe shows it.
    void die(std::size_t index)
    {
        process(index).state = nq::nqProcess::Ended;
        pipe(index).lose();
    }

    void answer(std::size_t index, const std::string& result)
    {
        pipe(index).arrivals.push_back(frame(result));
    }

    Lines results()
    {
        Lines all;
        Bytes result;
        while (scheduler->pop(result))
            all.emplace_back(result.begin(), result.end());
        return all;
    }
};

} // namespace support
