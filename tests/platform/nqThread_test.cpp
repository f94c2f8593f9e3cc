#include "system/nqThread.h"

#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

namespace {

using nq::nqThread;

TEST(Thread, idOfTheMainThreadIsTheProcessId)
{
    EXPECT_EQ(nqThread::CurrentThreadId(), std::to_string(::getpid()));
}

TEST(Thread, idIsTheKernelsForEveryThread)
{
    std::string reported;
    pid_t real = 0;
    std::thread([&] {
        reported = nqThread::CurrentThreadId();
        real = ::gettid();
    }).join();

    EXPECT_EQ(reported, std::to_string(real));
    EXPECT_NE(reported, nqThread::CurrentThreadId());
}

} // namespace
