#include <nqLog.h>
#include <nqScheduler.h>

// Only has to compile: whoever links the platform library sees the scheduler's headers, too.
nq::nqScheduler::FailReason reasonOfNothing();
nq::nqScheduler::FailReason reasonOfNothing()
{
    return nq::nqScheduler::NoFailure;
}
