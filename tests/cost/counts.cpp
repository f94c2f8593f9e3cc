#include "counts.h"

#include <cstdlib>
#include <dlfcn.h>
#include <new>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>

namespace {

cost::Counts current;

/// The C library's function behind one of those below.
template <typename Function>
Function* next(const char* name)
{
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

void countWait(bool maySleep)
{
    ++(maySleep ? current.mWaitCalls : current.mLooks);
}

} // namespace

cost::Counts cost::counts()
{
    return current;
}

void* operator new(std::size_t size)
{
    ++current.mAllocations;
    if (void* block = std::malloc(size))
        return block;
    throw std::bad_alloc();
}

void operator delete(void* block) noexcept
{
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept
{
    std::free(block);
}

extern "C" {

ssize_t send(int socket, const void* bytes, size_t size, int flags)
{
    static const auto call = next<decltype(send)>("send");
    ++current.mMessageCalls;
    return call(socket, bytes, size, flags);
}

ssize_t recv(int socket, void* bytes, size_t size, int flags)
{
    static const auto call = next<decltype(recv)>("recv");
    ++current.mMessageCalls;
    return call(socket, bytes, size, flags);
}

int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout)
{
    static const auto call = next<decltype(select)>("select");
    countWait(timeout == nullptr || timeout->tv_sec != 0 || timeout->tv_usec != 0);
    return call(count, readable, writable, exceptional, timeout);
}

int ppoll(pollfd* descriptors, nfds_t count, const timespec* timeout, const sigset_t* mask)
{
    static const auto call = next<decltype(ppoll)>("ppoll");
    countWait(timeout == nullptr || timeout->tv_sec != 0 || timeout->tv_nsec != 0);
    return call(descriptors, count, timeout, mask);
}

int poll(pollfd* descriptors, nfds_t count, int timeoutMs)
{
    static const auto call = next<decltype(poll)>("poll");
    countWait(timeoutMs != 0);
    return call(descriptors, count, timeoutMs);
}
}
