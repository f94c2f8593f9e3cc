#pragma once

namespace nq {

/// Sets a flag for as long as it lives.
class nqFlagGuard {
public:
    explicit nqFlagGuard(bool& flag)
        : mFlag(flag)
    {
        mFlag = true;
    }
    ~nqFlagGuard()
    {
        mFlag = false;
    }
    nqFlagGuard(const nqFlagGuard&) = delete;
    nqFlagGuard& operator=(const nqFlagGuard&) = delete;

private:
    bool& mFlag;
};

} // namespace nq
