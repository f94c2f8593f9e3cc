#pragma once

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace nqrun {

/// Owns a descriptor, and closes it once.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int number)
        : mNumber(number)
    {
    }
    ~Descriptor()
    {
        reset();
    }
    Descriptor(Descriptor&& other) noexcept
        : mNumber(std::exchange(other.mNumber, -1))
    {
    }
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        if (this != &other) {
            reset();
            mNumber = std::exchange(other.mNumber, -1);
        }
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    bool isOpen() const
    {
        return mNumber >= 0;
    }
    int number() const
    {
        return mNumber;
    }
    void reset()
    {
        if (mNumber < 0)
            return;
        const int error = errno;
        ::close(std::exchange(mNumber, -1));
        errno = error;
    }

private:
    int mNumber = -1;
};

/// Makes a call again for as long as signals interrupt it. Not for close().
template <typename Call>
auto retryOnSignal(Call call)
{
    decltype(call()) result{};
    do
        result = call();
    while (result < 0 && errno == EINTR);
    return result;
}

} // namespace nqrun
