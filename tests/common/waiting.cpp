#include "tests/common/waiting.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <unistd.h>

namespace common {

using Clock = std::chrono::steady_clock;

bool becomesReady(int descriptor, short events, Clock::time_point deadline)
{
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd watched{descriptor, events, 0};
        const int ready = ::poll(&watched, 1, static_cast<int>(std::max<long>(left, 0)));
        if (ready > 0)
            return true;
        if (ready == 0 || errno != EINTR)
            return false;
    }
}

bool becomesReadable(int descriptor, std::chrono::milliseconds limit)
{
    return becomesReady(descriptor, POLLIN, Clock::now() + limit);
}

std::string readAll(int descriptor)
{
    std::string text;
    char bytes[4096];
    for (;;) {
        const ssize_t count = ::read(descriptor, bytes, sizeof bytes);
        if (count > 0)
            text.append(bytes, static_cast<std::size_t>(count));
        else if (count == 0 || errno != EINTR)
            return text;
    }
}

} // namespace common
