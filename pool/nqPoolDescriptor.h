#pragma once

#include "pool/include/nqPool.h"

#include <cerrno>
#include <string>
#include <system_error>
#include <unistd.h>

namespace nq {

/// Owns a descriptor that the pool itself needs in order to sleep.
class nqPoolDescriptor {
public:
    /// Takes over what a system call has just returned. Throws nqPoolError when it has failed.
    explicit nqPoolDescriptor(int descriptor)
        : mDescriptor(descriptor)
    {
        if (mDescriptor == -1)
            throw nqPoolError(
                "The pool has no descriptor to wait on: " + std::generic_category().message(errno) +
                "; allow more open files");
    }
    ~nqPoolDescriptor()
    {
        ::close(mDescriptor);
    }
    nqPoolDescriptor(const nqPoolDescriptor&) = delete;
    nqPoolDescriptor& operator=(const nqPoolDescriptor&) = delete;

    int get() const
    {
        return mDescriptor;
    }

private:
    int mDescriptor;
};

} // namespace nq
