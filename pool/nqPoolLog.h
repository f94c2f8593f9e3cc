#pragma once

#include "nqPoolOptions.h"

namespace nq {

/// While at least one of these lives and the host has no nqLog of its own, the library's log lines
/// do not get between the host's results on standard output: they go where the guards say, to
/// standard error as soon as one of them wants it. A logger that the host installs, before or
/// after, always wins. The last guard leaves things as they were.
///
/// Guards may be made and destroyed on several threads.
class nqPoolLog {
public:
    explicit nqPoolLog(nqPoolOptions::Log log);
    ~nqPoolLog();
    nqPoolLog(const nqPoolLog&) = delete;
    nqPoolLog& operator=(const nqPoolLog&) = delete;

private:
    const bool mIsShown;
};

} // namespace nq
