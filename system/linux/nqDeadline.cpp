#include "system/linux/nqDeadline.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace nq {

using std::chrono::nanoseconds;
using std::chrono::steady_clock;

nqDeadline::nqDeadline(std::int64_t timeoutMs)
    : mEnd(steady_clock::now() + std::chrono::milliseconds(std::max<std::int64_t>(timeoutMs, 0)))
{
}

nqDeadline nqDeadline::orIn(std::int64_t timeoutMs) const
{
    nqDeadline sooner(timeoutMs);
    sooner.mEnd = std::min(sooner.mEnd, mEnd);
    return sooner;
}

bool nqDeadline::hasPassed() const
{
    return steady_clock::now() >= mEnd;
}

int nqDeadline::poll(pollfd* descriptors, nfds_t count) const
{
    for (;;) {
        timespec left{};
        timespec* limit = nullptr;
        if (mEnd != steady_clock::time_point::max()) {
            const auto rest = std::max(nanoseconds(mEnd - steady_clock::now()), nanoseconds(0));
            const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(rest);
            left.tv_sec = static_cast<time_t>(seconds.count());
            left.tv_nsec = static_cast<long>((rest - seconds).count());
            limit = &left;
        }
        const int reported = ::ppoll(descriptors, count, limit, nullptr);
        if (reported >= 0 || errno != EINTR)
            return reported;
    }
}

} // namespace nq
