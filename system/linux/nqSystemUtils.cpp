#include "system/nqSystemUtils.h"

#include "system/linux/nqSystemCall.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <malloc.h>
#include <sys/random.h>
#include <system_error>
#include <unistd.h>

namespace nq {

namespace {

constexpr std::size_t uuidBytes = 16;
using Uuid = std::array<unsigned char, uuidBytes>;

Uuid randomBytes()
{
    Uuid bytes{};
    for (std::size_t filled = 0; filled < bytes.size();) {
        const ssize_t got = retryOnSignal(
            [&] { return ::getrandom(bytes.data() + filled, bytes.size() - filled, 0); });
        if (got < 0)
            throw std::system_error(errno, std::generic_category(), "no random bytes for a UUID");
        filled += static_cast<std::size_t>(got);
    }
    return bytes;
}

/// Sets the bits that mark a UUID as random (version 4) and as laid out by RFC 4122.
void markAsVersion4(Uuid& uuid)
{
    uuid[6] = static_cast<unsigned char>((uuid[6] & 0x0fU) | 0x40U);
    uuid[8] = static_cast<unsigned char>((uuid[8] & 0x3fU) | 0x80U);
}

/// The groups of a UUID's text are 4, 2, 2, 2 and 6 bytes long.
bool startsGroup(std::size_t index)
{
    return index == 4 || index == 6 || index == 8 || index == 10;
}

} // namespace

std::string nqSystemUtils::CreateUuid(bool withHyphens)
{
    static constexpr char digits[] = "0123456789abcdef";

    Uuid uuid = randomBytes();
    markAsVersion4(uuid);

    std::string text;
    for (std::size_t index = 0; index < uuid.size(); ++index) {
        if (withHyphens && startsGroup(index))
            text += '-';
        text += digits[uuid[index] >> 4U];
        text += digits[uuid[index] & 0x0fU];
    }
    return text;
}

int nqSystemUtils::GetIdealThreadCount()
{
    return static_cast<int>(std::max(::sysconf(_SC_NPROCESSORS_ONLN), 1L));
}

std::uint64_t nqSystemUtils::GetMSecElapsedSinceEpoch()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

void nqSystemUtils::ReleaseFreeMemory()
{
    ::malloc_trim(0);
}

} // namespace nq
