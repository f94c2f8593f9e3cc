#include "cluster/nqRedisAddress.h"

#include "pool/include/nqPool.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <limits>
#include <string_view>

namespace nq {

namespace {

constexpr std::string_view tcpScheme = "redis://";
constexpr std::string_view unixScheme = "unix:";
constexpr char passwordVariable[] = "NQ_REDIS_PASSWORD";
constexpr char passwordFileVariable[] = "NQ_REDIS_PASSWORD_FILE";

[[noreturn]] void refuse(const std::string& why)
{
    throw nqPoolError(
        "The address of the Redis server " + why +
        "; write redis://HOST:PORT, redis://USER@HOST:PORT/DATABASE or unix:PATH");
}

unsigned numberOf(std::string_view text, unsigned largest, const char* what)
{
    unsigned number = 0;
    for (const char digit : text) {
        if (digit < '0' || digit > '9' || number > largest)
            refuse(
                std::string("has a ") + what + " that is no number up to " +
                std::to_string(largest));
        number = number * 10 + static_cast<unsigned>(digit - '0');
    }
    if (text.empty() || number > largest)
        refuse(
            std::string("has a ") + what + " that is no number up to " + std::to_string(largest));
    return number;
}

/// "HOST", "HOST:PORT" or "[ADDRESS]:PORT".
void parseHost(std::string_view text, nqRedisAddress& address)
{
    std::string_view port;
    if (!text.empty() && text.front() == '[') {
        const std::size_t end = text.find(']');
        if (end == text.npos)
            refuse("has a [ without its ]");
        address.host = text.substr(1, end - 1);
        port = text.substr(end + 1);
    } else {
        const std::size_t colon = text.find(':');
        address.host = text.substr(0, colon);
        port = colon == text.npos ? std::string_view() : text.substr(colon);
    }
    if (address.host.empty())
        refuse("has no host");
    if (!port.empty() && port.front() != ':')
        refuse("has something between ] and its port");
    if (!port.empty())
        address.port = static_cast<std::uint16_t>(
            numberOf(port.substr(1), std::numeric_limits<std::uint16_t>::max(), "port"));
}

void parseTcp(std::string_view text, nqRedisAddress& address)
{
    if (const std::size_t at = text.rfind('@'); at != text.npos) {
        address.user = text.substr(0, at);
        if (address.user.find(':') != std::string::npos)
            refuse(
                std::string("has a password in it, which other users of this machine can read; put "
                            "it into a file that ") +
                passwordFileVariable + " names");
        text.remove_prefix(at + 1);
    }
    if (const std::size_t slash = text.find('/'); slash != text.npos) {
        const std::string_view database = text.substr(slash + 1);
        if (!database.empty())
            address.database =
                numberOf(database, std::numeric_limits<std::uint16_t>::max(), "database");
        text = text.substr(0, slash);
    }
    parseHost(text, address);
}

/// Without the line break that editors put at its end.
std::string contentsOf(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!file)
        throw nqPoolError("The password file " + path + " cannot be read");
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    if (text.empty())
        throw nqPoolError("The password file " + path + " is empty");
    return text;
}

std::string passwordFrom(const std::string& passwordFile)
{
    if (!passwordFile.empty())
        return contentsOf(passwordFile);
    if (const char* const file = std::getenv(passwordFileVariable); file != nullptr)
        return contentsOf(file);
    const char* const password = std::getenv(passwordVariable);
    return password != nullptr ? password : "";
}

} // namespace

nqRedisAddress nqRedisAddress::parse(const std::string& url, const std::string& passwordFile)
{
    nqRedisAddress address;
    const std::string_view text = url;
    if (text.substr(0, tcpScheme.size()) == tcpScheme) {
        parseTcp(text.substr(tcpScheme.size()), address);
    } else if (text.substr(0, unixScheme.size()) == unixScheme) {
        address.path = text.substr(unixScheme.size());
        if (address.path.empty())
            refuse("has no path");
    } else if (text.substr(0, 9) == "rediss://") {
        throw nqPoolError(
            "The client library has no TLS; run a tunnel such as stunnel on this machine, and "
            "write its end here as redis://localhost:PORT");
    } else {
        refuse("begins with neither redis:// nor unix:");
    }
    address.password = passwordFrom(passwordFile);
    return address;
}

std::string nqRedisAddress::text() const
{
    if (host.empty())
        return path;
    const bool isIpv6 = host.find(':') != std::string::npos;
    return (isIpv6 ? '[' + host + ']' : host) + ':' + std::to_string(port);
}

} // namespace nq
