#pragma once

#include "system/linux/nqDescriptor.h"
#include "system/nqOwnerProcess.h"

namespace nq {

/// Ties the process group of one child to the life of the host.
///
/// A pair of connected stream sockets, both held by the host alone. Between vfork and exec the
/// child makes its process group the owner of both (F_SETOWN) and SIGKILL the signal that reports
/// activity on them (F_SETSIG, O_ASYNC). These settings belong to the sockets, not to the process
/// that made them, so they stay in the host, and the child keeps nothing.
///
/// When the host ends, by whatever means, the kernel closes its descriptors one by one. The first
/// end to go hangs up the other, and the kernel reports that by sending SIGKILL to the group. No
/// thread of the host takes part, and no worker can prevent it. If the host dies between vfork and
/// exec, the child holds the last references; its own exec closes them and so kills it. The kernel
/// holds the group itself, not its number, so a recycled pid is never hit.
///
/// A child that the host forks without an exec would hold copies and keep the group alive after the
/// host's end. A fork handler closes them there, except those of a leash that this very child is to
/// arm, see ForChild. The handler knows leashes by address, so they are neither copied nor moved.
/// Any thread may make and destroy leashes.
class nqLeash {
public:
    /// Makes the pair. On failure isOpen() is false, and errno says why, as far as it is known.
    nqLeash();

    /// Kills what is left of an armed group.
    ~nqLeash();

    nqLeash(const nqLeash&) = delete;
    nqLeash& operator=(const nqLeash&) = delete;

    bool isOpen() const
    {
        return mOneEnd.isOpen() && mOtherEnd.isOpen();
    }

    /// Lives while its thread starts the child that arms `leash`. Tools such as sanitizers turn
    /// vfork into a fork that runs all handlers; the child then needs its copies until its exec.
    class ForChild {
    public:
        explicit ForChild(const nqLeash& leash);
        ~ForChild();
        ForChild(const ForChild&) = delete;
        ForChild& operator=(const ForChild&) = delete;
    };

    /// Called by the child between vfork and exec, once it leads its group: calls only what is safe
    /// there, and changes no memory of the host but errno. False when the kernel refuses.
    bool armForOwnGroup() const noexcept;

    /// Kills every member of the group. Without effect until the leash is armed.
    void killGroup() noexcept;

private:
    struct Registry;

    nqOwnerProcess mOwner; // a forked child kills nobody, even if its fork ran no handler
    nqDescriptor mOneEnd;
    nqDescriptor mOtherEnd;
};

} // namespace nq
