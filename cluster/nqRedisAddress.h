#pragma once

#include <cstdint>
#include <string>

namespace nq {

/// Where a Redis server is, and as whom to speak to it.
struct nqRedisAddress {
    std::string host; ///< empty: `path` is a Unix socket
    std::uint16_t port = 6379;
    std::string path;
    unsigned database = 0;
    std::string user;     ///< empty: the default one
    std::string password; ///< empty: none

    /// Of "redis://[USER@]HOST[:PORT][/DATABASE]" or "unix:PATH". The password is that of
    /// `passwordFile`, or of the environment. Throws nqPoolError, which never shows a password.
    static nqRedisAddress parse(const std::string& url, const std::string& passwordFile);

    /// For people; without the password.
    std::string text() const;
};

} // namespace nq
