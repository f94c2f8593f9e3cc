#include "tests/scripted/scriptedMachine.h"

#include "system/nqOwnedDescriptor.h"

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
    if (mDescriptor != -1)
        scripted::machine().call("descriptor " + std::to_string(mDescriptor) + ": closed");
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
