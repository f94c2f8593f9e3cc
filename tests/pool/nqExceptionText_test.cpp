#include "pool/nqExceptionText.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <stdexcept>

namespace {

using nq::exceptionOf;

struct Surprise {};

TEST(ExceptionText, isNoneWithoutAnException)
{
    EXPECT_FALSE(exceptionOf([] {}));
}

TEST(ExceptionText, isThatOfTheException)
{
    EXPECT_EQ(exceptionOf([] { throw std::runtime_error("no such page"); }), "no such page");
}

TEST(ExceptionText, namesTheTypeOfAnyOtherObject)
{
    EXPECT_EQ(exceptionOf([] { throw 5; }), "an exception of type int, which is no std::exception");
    EXPECT_EQ(
        exceptionOf([] { throw Surprise(); }),
        "an exception of type (anonymous namespace)::Surprise, which is no std::exception");
}

#ifndef __SANITIZE_ADDRESS__ // beside which references are checked; this unwinding has no object
/// What remains of a thread that is cancelled inside of `exceptionOf`.
struct Remains {
    bool wasUnwound = false;
    bool hasReturned = false;
};

struct NoteOfUnwinding {
    ~NoteOfUnwinding()
    {
        mRemains.wasUnwound = true;
    }
    Remains& mRemains;
};

void* cancelItself(void* argument)
{
    Remains& remains = *static_cast<Remains*>(argument);
    ::pthread_cancel(::pthread_self());
    exceptionOf([&] {
        const NoteOfUnwinding note{remains};
        ::pthread_testcancel();
    });
    remains.hasReturned = true;
    return nullptr;
}

TEST(ExceptionText, letsTheEndOfACancelledThreadPass)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer mistakes the unwinding of a cancelled thread for an error";
#endif
    Remains remains;
    pthread_t thread{};
    ASSERT_EQ(::pthread_create(&thread, nullptr, cancelItself, &remains), 0);
    void* result = nullptr;
    ASSERT_EQ(::pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_TRUE(remains.wasUnwound);
    EXPECT_FALSE(remains.hasReturned);
}
#endif

} // namespace
