#include "system/nqOwnedDescriptor.h"

#include "system/linux/nqDescriptor.h"

#include <utility>

namespace nq {

nqOwnedDescriptor::nqOwnedDescriptor(int descriptor) noexcept
    : mDescriptor(descriptor)
{
}

nqOwnedDescriptor::nqOwnedDescriptor(nqOwnedDescriptor&& other) noexcept
    : mDescriptor(other.release())
{
}

nqOwnedDescriptor& nqOwnedDescriptor::operator=(nqOwnedDescriptor&& other) noexcept
{
    std::swap(mDescriptor, other.mDescriptor);
    return *this;
}

nqOwnedDescriptor::~nqOwnedDescriptor()
{
    nqDescriptor(release()).close();
}

int nqOwnedDescriptor::get() const noexcept
{
    return mDescriptor;
}

int nqOwnedDescriptor::release() noexcept
{
    return std::exchange(mDescriptor, -1);
}

} // namespace nq
