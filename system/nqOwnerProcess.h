#pragma once

#include "nqExport.h"

#include <cstdint>

namespace nq {

/// Remembers the process that made it.
///
/// A forked child has a copy of every object of its parent and shares the sockets behind them. An
/// object that holds one of these checks it before it acts, so that its copy leaves the parent's
/// connections and processes alone. Works however the child was made: the kernel zeroes the page of
/// the mark in it.
///
/// Any thread may call. Nothing blocks, nothing throws, and a check costs no system call.
class NQ_API nqOwnerProcess {
public:
    /// The calling process is the owner.
    nqOwnerProcess() noexcept;

    /// False in a process that was forked, directly or not, from the one that made this object.
    bool isThisProcess() const noexcept;

private:
    std::uint64_t mMark;
};

} // namespace nq
