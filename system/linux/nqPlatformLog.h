#pragma once

#include <string>

namespace nq {

/// Logs one line of the platform's own at level Error: through the host's logger if that wants the
/// level, to standard output when there is no logger. Any thread may call that may log.
///
/// For places that must go on whatever happens: throws nothing, and a line for which there is no
/// memory, or which the logger fails to write, is lost.
void logError(const std::string& message) noexcept;

} // namespace nq
