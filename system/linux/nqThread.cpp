#include "system/nqThread.h"

#include <unistd.h>

namespace nq {

std::string nqThread::CurrentThreadId()
{
    return std::to_string(::gettid());
}

} // namespace nq
