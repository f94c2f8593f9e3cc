#include "cluster/nqClusterNames.h"

#include "pool/include/nqPool.h"

#include <algorithm>
#include <array>
#include <random>
#include <string_view>
#include <unistd.h>

namespace nq {

namespace {

constexpr std::size_t longestName = 100;
constexpr std::string_view digits = "0123456789abcdef";

bool isAllowed(char character)
{
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           (character >= '0' && character <= '9') || character == '-' || character == '_' ||
           character == '.';
}

std::string randomDigits(std::size_t count)
{
    std::random_device source;
    std::string text;
    while (text.size() < count)
        text += digits[source() % digits.size()];
    return text;
}

} // namespace

const std::string& requireName(const std::string& name, const char* what)
{
    if (name.empty() || name.size() > longestName ||
        !std::all_of(name.begin(), name.end(), isAllowed))
        throw nqPoolError(
            std::string("The name of a ") + what + " has 1 to " + std::to_string(longestName) +
            " letters, digits, and the characters - _ . only");
    return name;
}

std::string uniqueName()
{
    std::array<char, 65> host{};
    ::gethostname(host.data(), host.size() - 1);
    std::string name(host.data());
    std::replace_if(
        name.begin(), name.end(), [](char character) { return !isAllowed(character); }, '-');
    return (name.empty() ? "host" : name) + '-' + std::to_string(::getpid()) + '-' +
           randomDigits(4);
}

std::string uniqueToken()
{
    return randomDigits(16);
}

} // namespace nq
