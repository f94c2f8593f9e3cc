#pragma once

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace nq {

/// Owns a descriptor, or none (-1), and closes it once.
class nqDescriptor {
public:
    nqDescriptor() = default;
    explicit nqDescriptor(int descriptor)
        : mDescriptor(descriptor)
    {
    }
    nqDescriptor(nqDescriptor&& other) noexcept
        : mDescriptor(std::exchange(other.mDescriptor, -1))
    {
    }
    nqDescriptor& operator=(nqDescriptor&& other) noexcept
    {
        std::swap(mDescriptor, other.mDescriptor);
        other.close();
        return *this;
    }
    ~nqDescriptor()
    {
        close();
    }

    int get() const
    {
        return mDescriptor;
    }

    bool isOpen() const
    {
        return mDescriptor != -1;
    }

    void close()
    {
        if (mDescriptor == -1)
            return;
        const int kept = errno;
        ::close(std::exchange(mDescriptor, -1));
        errno = kept;
    }

private:
    int mDescriptor = -1;
};

} // namespace nq
