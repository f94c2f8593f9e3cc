#pragma once

#include <mutex>
#include <new>
#include <pthread.h>

namespace nq {

/// The one value of its type that all threads of the process share, behind a lock that a fork
/// neither leaves held in the child nor catches with the value half changed.
///
/// In a forked child the value's inForkedChild() runs, with the lock held, before anything else can
/// reach it. Never destroyed: static objects of the host may need it until the very end.
template <typename Value>
class nqForkSafe {
public:
    /// Access for as long as it lives.
    class Access {
    public:
        Value* operator->() const
        {
            return &mShared.mValue;
        }

    private:
        friend class nqForkSafe;
        explicit Access(nqForkSafe& shared)
            : mShared(shared),
              mGuard(shared.mMutex)
        {
        }

        nqForkSafe& mShared;
        std::lock_guard<std::mutex> mGuard;
    };

    /// Throws std::bad_alloc when the first call finds no memory.
    static Access access()
    {
        return Access(instance());
    }

private:
    nqForkSafe()
    {
        if (::pthread_atfork(lock, unlock, startAnew) != 0)
            throw std::bad_alloc();
    }

    static nqForkSafe& instance()
    {
        static auto* const shared = new nqForkSafe;
        return *shared;
    }

    static void lock()
    {
        instance().mMutex.lock();
    }
    static void unlock()
    {
        instance().mMutex.unlock();
    }
    static void startAnew()
    {
        instance().mValue.inForkedChild();
        unlock();
    }

    std::mutex mMutex;
    Value mValue;
};

} // namespace nq
