#include "tools/nqrun/command_work.h"

#include "tools/nqrun/command.h"

#include <nqPoolWorker.h>
#include <optional>
#include <stdexcept>
#include <string>

namespace nqrun {

namespace {

using Reason = nq::nqAttempt::Reason;

Reason reasonFor(End end)
{
    switch (end) {
    case End::Exited:
        return Reason::Exited;
    case End::Signalled:
        return Reason::Crashed;
    case End::TimedOut:
        return Reason::Timeout;
    case End::MemoryCap:
        return Reason::MemoryCap;
    case End::NotStarted:
    case End::OutputLost:
    case End::None:
        break;
    }
    return Reason::Exception;
}

nq::nqJobFailure asJobFailure(const CommandFailure& failure)
{
    const Report& report = failure.report;
    nq::nqJobFailure told(reasonFor(report.end), failure.text);
    if (report.end == End::Exited)
        told.exitStatus = report.code;
    if (report.end == End::Signalled)
        told.signal = report.code;
    told.dumpedCore = report.dumpedCore != 0;
    if (report.peakMemory != 0)
        told.peakMemory = report.peakMemory;
    return told;
}

} // namespace

void CommandWork::operator()(std::string_view job, std::vector<char>& /*result*/)
{
    if (!mKeeper)
        mKeeper = std::make_unique<Keeper>();
    const std::optional<std::string> failure = mKeeper->run(job);
    if (!failure) {
        mKeeper.reset(); // the next command gets another one
        throw std::runtime_error("lost: the process that watches over the command was ended");
    }
    if (!failure->empty())
        throw asJobFailure(CommandFailure::decoded(*failure));
}

} // namespace nqrun
