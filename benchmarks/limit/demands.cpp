#include "benchmarks/limit/demands.h"

#include <algorithm>
#include <cstdlib>
#include <poll.h>
#include <sys/socket.h>

namespace bench {

namespace {

constexpr int waitMs = 1000;

} // namespace

Demands::Demands()
    : mAreMade(std::getenv("NQ_BENCH_DEMANDS") != nullptr)
{
}

bool Demands::areMade() const
{
    return mAreMade;
}

const char* Demands::copied(const char* bytes, std::size_t size, int times)
{
    if (!mAreMade)
        return bytes;
    for (int i = 0; i < times; ++i) {
        std::vector<char>& copy = mCopies[i % 2];
        if (copy.size() < size)
            copy.resize(size);
        std::copy_n(bytes, size, copy.data());
        bytes = copy.data();
    }
    return bytes;
}

void Demands::waitForBytes(int socket) const
{
    if (!mAreMade)
        return;
    pollfd watched{socket, POLLIN, 0};
    ::poll(&watched, 1, waitMs);
}

void Demands::lookForTheEnd(int socket) const
{
    char byte = 0;
    if (mAreMade)
        ::recv(socket, &byte, sizeof byte, MSG_DONTWAIT | MSG_PEEK);
}

} // namespace bench
