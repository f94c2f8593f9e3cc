#pragma once

#include <pthread.h>

namespace nq {

/// Keeps pthread_cancel() from acting on the calling thread for as long as it lives. Cancellation
/// unwinds the stack like an exception, but a function that lets no exception out would end the
/// whole process with it.
class nqUncancellable {
public:
    nqUncancellable()
    {
        ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &mBefore);
    }
    ~nqUncancellable()
    {
        ::pthread_setcancelstate(mBefore, nullptr);
    }

    nqUncancellable(const nqUncancellable&) = delete;
    nqUncancellable& operator=(const nqUncancellable&) = delete;

private:
    int mBefore = PTHREAD_CANCEL_ENABLE;
};

} // namespace nq
