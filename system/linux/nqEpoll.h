#pragma once

#include "system/linux/nqDescriptor.h"
#include "system/nqOwnerProcess.h"

#include <cstdint>

namespace nq {

/// A set of descriptors that the kernel watches, level-triggered, and one number to wait on for all
/// of them.
///
/// A forked child shares the set itself and not a copy, so in the child nothing is changed.
class nqEpoll {
public:
    /// On failure isOpen() is false, and errno says why.
    nqEpoll();

    bool isOpen() const
    {
        return mSet.isOpen();
    }

    /// Below FD_SETSIZE; -1 when there is none, or in a forked child.
    int get() const;

    /// Adds the descriptor, or changes what it is watched for. False when the kernel refuses.
    bool add(int descriptor, std::uint32_t events);
    bool change(int descriptor, std::uint32_t events);

    void remove(int descriptor);

private:
    bool control(int operation, int descriptor, std::uint32_t events);

    nqOwnerProcess mOwner;
    nqDescriptor mSet;
};

} // namespace nq
