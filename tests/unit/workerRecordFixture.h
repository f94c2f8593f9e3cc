#pragma once

#include "scheduler/nqJobQueues.h"
#include "supervision/nqSchedulerWorker.h"
#include "tests/unit/schedulerFixture.h"

#include <chrono>
#include <memory>

namespace support {

/// One worker record with its queues, on a process that runs and a pipe that is open.
class WorkerRecordFixture : public testing::Test {
protected:
    scripted::Machine machine;
    Logger logger;
    nq::nqJobQueues queues;
    scripted::Process* process = nullptr;
    scripted::Pipe* pipe = nullptr;
    std::unique_ptr<nq::nqSchedulerWorker> worker;

    WorkerRecordFixture()
    {
        makeWorker(machine.planProcess());
    }

    /// Puts a new record on `plan` in place of the old one.
    void makeWorker(scripted::Process& plan)
    {
        worker.reset();
        process = &plan;
        process->state = nq::nqProcess::Running;
        pipe = &machine.planPipe();
        worker = std::make_unique<nq::nqSchedulerWorker>(
            std::make_unique<nq::nqNamedPipe>(), std::make_unique<nq::nqProcess>(), &queues);
        forgetCalls();
    }

    void forgetCalls()
    {
        machine.calls.clear();
        machine.trace.clear();
    }

    void step()
    {
        worker->superviseStep();
    }

    void stepAfter(std::chrono::nanoseconds time)
    {
        machine.advance(time);
        step();
    }

    /// Gives the worker a job, which leaves for it in the next step.
    void dispatch(const std::string& job = "job")
    {
        queues.push(bytes(job));
        step();
        ASSERT_FALSE(worker->isReadyForJob());
    }

    void answer(const std::string& result)
    {
        pipe->arrivals.push_back(frame(result));
    }

    /// The process has ended and its pipe shows it.
    void die()
    {
        process->state = nq::nqProcess::Ended;
        pipe->lose();
    }

    Lines results()
    {
        Lines all;
        Bytes result;
        while (queues.pop(result))
            all.emplace_back(result.begin(), result.end());
        return all;
    }

    std::ptrdiff_t kills() const
    {
        return machine.count(process->name + ": killProcess()");
    }
};

} // namespace support
