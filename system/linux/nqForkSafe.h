#pragma once

#include <mutex>
#include <new>
#include <pthread.h>

namespace nq {

/// The one value of its type in the process, behind a lock that survives a fork: in the child the
/// lock is free and the value whole, because the fork itself waits for the lock.
///
/// In the child the value's resetInChild() runs before anything else reaches it. Never destroyed:
/// static objects of the host may need it to the very end.
template <typename Value>
class nqForkSafe {
public:
    /// Holds the lock for as long as it lives.
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

    /// Throws std::bad_alloc when the first call cannot allocate.
    static Access access()
    {
        return Access(instance());
    }

private:
    nqForkSafe()
    {
        if (::pthread_atfork(lock, unlock, resetAndUnlock) != 0)
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
    static void resetAndUnlock()
    {
        instance().mValue.resetInChild();
        unlock();
    }

    std::mutex mMutex;
    Value mValue;
};

} // namespace nq
