#include "system/nqThread.h"

#include <pthread.h>
#include <unistd.h>

namespace nq {

std::string nqThread::CurrentThreadId()
{
    return std::to_string(::gettid());
}

nqThread::Uncancellable::Uncancellable()
{
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &mStateBefore);
}

nqThread::Uncancellable::~Uncancellable()
{
    ::pthread_setcancelstate(mStateBefore, nullptr);
}

void nqThread::EndIfCancelled()
{
    ::pthread_testcancel();
}

} // namespace nq
