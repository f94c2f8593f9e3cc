#include "pool/nqQuietWrites.h"

#include <cerrno>
#include <ctime>
#include <initializer_list>
#include <pthread.h>

namespace nq {

nqQuietWrites::nqQuietWrites()
{
    sigset_t pending;
    ::sigpending(&pending);
    ::sigemptyset(&mMine);
    for (const int signal : {SIGPIPE, SIGXFSZ})
        if (::sigismember(&pending, signal) == 0)
            ::sigaddset(&mMine, signal);
    ::pthread_sigmask(SIG_BLOCK, &mMine, &mHostMask);
}

nqQuietWrites::~nqQuietWrites()
{
    const int errorOfTheWrite = errno;
    const timespec noWait{};
    int consumed = 0;
    do {
        consumed = ::sigtimedwait(&mMine, nullptr, &noWait);
    } while (consumed > 0 || (consumed < 0 && errno == EINTR));
    ::pthread_sigmask(SIG_SETMASK, &mHostMask, nullptr);
    errno = errorOfTheWrite;
}

} // namespace nq
