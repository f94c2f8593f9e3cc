#pragma once

#include "nqPoolOptions.h"

#include <string>

namespace nq {

/// While at least one of these lives and the host has no nqLog of its own, the library's log lines
/// do not get between the host's results on standard output: they go where the guards say, once to
/// each place that one of them wants. A logger that the host installs, before or after, always
/// wins. The last guard leaves things as they were.
///
/// Guards may be made and destroyed on several threads.
class nqPoolLog {
public:
    explicit nqPoolLog(const nqPoolOptions& options);
    ~nqPoolLog();
    nqPoolLog(const nqPoolLog&) = delete;
    nqPoolLog& operator=(const nqPoolLog&) = delete;

private:
    const nqPoolOptions::Log mLog;
    const std::string mPath; ///< empty: standard error
};

} // namespace nq
