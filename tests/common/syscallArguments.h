#pragma once

#include <cstdarg>

namespace common {

/// What a stand-in for syscall() hands on: as many arguments as any operation takes. What nobody
/// has passed, nobody looks at.
class SyscallArguments {
public:
    explicit SyscallArguments(va_list& list)
    {
        for (long& argument : mArguments)
            argument = va_arg(list, long);
    }

    long callWith(long (*systemCall)(long, ...), long number) const
    {
        return systemCall(
            number,
            mArguments[0],
            mArguments[1],
            mArguments[2],
            mArguments[3],
            mArguments[4],
            mArguments[5]);
    }

    /// The argument of that number, counted from 0, as a pointer.
    template <typename Pointee>
    const Pointee* pointer(int number) const
    {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): what the kernel gets is numbers
        return reinterpret_cast<const Pointee*>(mArguments[number]);
    }

private:
    long mArguments[6];
};

} // namespace common
