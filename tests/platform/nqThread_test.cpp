#include "system/nqThread.h"

#include <gtest/gtest.h>
#include <pthread.h>
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

void* pumpUntilCancelled(void*)
{
    for (;;)
        nqThread::EndIfCancelled();
}

TEST(Thread, endsWhereItAsksWhetherItIsCancelled)
{
    pthread_t thread{};
    ASSERT_EQ(::pthread_create(&thread, nullptr, pumpUntilCancelled, nullptr), 0);
    ASSERT_EQ(::pthread_cancel(thread), 0);
    void* result = nullptr;
    ASSERT_EQ(::pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

void* holdCancellationOff(void* steps)
{
    auto& taken = *static_cast<int*>(steps);
    {
        const nqThread::Uncancellable outer;
        {
            const nqThread::Uncancellable inner;
            ::pthread_cancel(::pthread_self());
        }
        nqThread::EndIfCancelled();
        ++taken;
    }
    nqThread::EndIfCancelled();
    ++taken;
    return nullptr;
}

TEST(Thread, actsOnACancellationOnceNothingHoldsItOffAnyMore)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer mistakes the unwinding of a cancelled thread for an overflow";
#endif
    int steps = 0;
    pthread_t thread{};
    ASSERT_EQ(::pthread_create(&thread, nullptr, holdCancellationOff, &steps), 0);
    void* result = nullptr;
    ASSERT_EQ(::pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(steps, 1);
}

} // namespace
