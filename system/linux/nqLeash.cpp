#include "system/linux/nqLeash.h"

#include "system/linux/nqForkSafe.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace nq {

namespace {

bool armForOwnGroup(int end) noexcept
{
    return ::fcntl(end, F_SETOWN, -::getpid()) == 0 && ::fcntl(end, F_SETSIG, SIGKILL) == 0 &&
           ::fcntl(end, F_SETFL, O_ASYNC | O_NONBLOCK) == 0;
}

// Laid out when the library is loaded, so that its first use in a thread allocates nothing.
[[gnu::tls_model("initial-exec")]] thread_local const nqLeash* leashForChild = nullptr;

} // namespace

/// The leashes of this process. Sockets are opened and closed under the lock, so that a fork finds
/// either both ends and the entry, or nothing.
struct nqLeash::Registry {
    std::vector<nqLeash*> mLeashes;

    void resetInChild()
    {
        // Not shut down: that would reach the parent's sockets.
        for (nqLeash* leash : mLeashes) {
            if (leash == leashForChild)
                continue;
            leash->mOneEnd.close();
            leash->mOtherEnd.close();
        }
        mLeashes.clear();
    }
};

nqLeash::nqLeash()
{
    const auto registry = nqForkSafe<Registry>::access();
    registry->mLeashes.reserve(registry->mLeashes.size() + 1);

    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0)
        return;
    mOneEnd = nqDescriptor(ends[0]);
    mOtherEnd = nqDescriptor(ends[1]);
    mOneEnd.moveOutOfRangeOfSelect();
    mOtherEnd.moveOutOfRangeOfSelect();
    registry->mLeashes.push_back(this);
}

nqLeash::ForChild::ForChild(const nqLeash& leash)
{
    leashForChild = &leash;
}

nqLeash::ForChild::~ForChild()
{
    leashForChild = nullptr;
}

bool nqLeash::armForOwnGroup() const noexcept
{
    return nq::armForOwnGroup(mOneEnd.get()) && nq::armForOwnGroup(mOtherEnd.get());
}

void nqLeash::killGroup() noexcept
{
    // A close would hang up too, but not before the exec of a child that another thread has just
    // forked and that holds copies. A shutdown takes effect at once.
    if (isOpen() && mOwner.isThisProcess())
        ::shutdown(mOneEnd.get(), SHUT_RDWR);
}

nqLeash::~nqLeash()
{
    if (!mOneEnd.isOpen() && !mOtherEnd.isOpen())
        return;
    const auto registry = nqForkSafe<Registry>::access();
    killGroup();
    mOneEnd.close();
    mOtherEnd.close();
    std::vector<nqLeash*>& leashes = registry->mLeashes;
    leashes.erase(std::remove(leashes.begin(), leashes.end(), this), leashes.end());
}

} // namespace nq
