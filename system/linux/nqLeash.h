#pragma once

#include "system/linux/nqDescriptor.h"
#include "system/nqOwnerProcess.h"

namespace nq {

/// Ties the process group of one child to the life of the host.
///
/// A pair of connected stream sockets, both ends held by the host alone. Before its exec the child
/// names its own process group as the owner of both ends, and SIGKILL as the signal that reports
/// activity on them. Owner and signal belong to the open sockets and not to the process that set
/// them, so they hold in the host, and the child keeps nothing.
///
/// When the host ends, by whatever means, the kernel closes its descriptors one after the other.
/// Whichever end goes first hangs up on the other, which still stands for that moment, and the
/// kernel reports the hang-up by sending SIGKILL to every member of the group. No thread of the
/// host matters and no worker can prevent it. A host that dies between vfork and exec leaves the
/// last references to the child, whose own exec closes them and thereby kills it. The owner is a
/// reference to the group inside the kernel and not a number, so a reused number is never hit.
///
/// A child that the host forks without an exec would hold copies and keep the group alive after the
/// host's end; a fork handler closes them there, but for the one leash that this child is started
/// to arm, see ForChild. Not copied and not moved, because that handler knows its address. Any
/// thread may make and destroy leashes.
class nqLeash {
public:
    /// Makes the pair. isMade() is false when the host has no descriptors left.
    nqLeash();

    /// Kills what is left of an armed group.
    ~nqLeash();

    nqLeash(const nqLeash&) = delete;
    nqLeash& operator=(const nqLeash&) = delete;

    bool isMade() const
    {
        return mOneEnd.isOpen() && mOtherEnd.isOpen();
    }

    /// Lives while its thread starts the child that arms `leash`. Tools that watch every access to
    /// memory turn vfork into a fork with all its handlers; that child then keeps its copies, and
    /// its exec closes them.
    class ForChild {
    public:
        explicit ForChild(const nqLeash& leash);
        ~ForChild();
        ForChild(const ForChild&) = delete;
        ForChild& operator=(const ForChild&) = delete;
    };

    /// Called by the child, which leads its session and group, between vfork and exec: nothing but
    /// system calls. False when the kernel refuses.
    bool armForOwnGroup() const noexcept;

    /// Kills every member of the group. Does nothing on a leash that nobody armed.
    void killGroup() noexcept;

    /// Kills what is left of the group and closes both ends.
    void release() noexcept;

private:
    struct Registry;

    nqOwnerProcess mOwner; // a forked child kills nobody, not even by a fork that ran no handler
    nqDescriptor mOneEnd;
    nqDescriptor mOtherEnd;
};

} // namespace nq
