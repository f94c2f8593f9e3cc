#pragma once

#include <map>
#include <set>
#include <string>
#include <sys/resource.h>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

namespace common {

/// The numbers of a process's open descriptors, without the one that is needed to look.
std::set<int> openDescriptorNumbers(pid_t process = ::getpid());

/// The same, each with what it refers to.
std::map<int, std::string> openDescriptors(pid_t process = ::getpid());

/// A descriptor of the test's own.
class Descriptor {
public:
    explicit Descriptor(int number = -1)
        : mNumber(number)
    {
    }
    Descriptor(Descriptor&& other) noexcept
        : mNumber(std::exchange(other.mNumber, -1))
    {
    }
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        close();
        mNumber = std::exchange(other.mNumber, -1);
        return *this;
    }
    ~Descriptor()
    {
        close();
    }

    int get() const
    {
        return mNumber;
    }

    void close()
    {
        if (mNumber >= 0)
            ::close(std::exchange(mNumber, -1));
    }

private:
    int mNumber;
};

/// Changes the soft limit of descriptors and gives it back.
class DescriptorLimit {
public:
    DescriptorLimit();
    ~DescriptorLimit();
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

    bool set(rlim_t soft) const;

    /// Leaves no number free for a new descriptor.
    bool exhaust() const;

    /// Leaves one.
    bool exhaustButOne() const;

private:
    rlimit mBefore{};
};

} // namespace common
