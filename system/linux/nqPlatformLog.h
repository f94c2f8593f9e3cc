#pragma once

#include <string>

namespace nq {

/// Logs one line at level Error: through the host's logger, if that wants the level, or to standard
/// output when there is none. Any thread may call that may log.
///
/// Never throws: a line is lost when there is no memory for it or the logger fails.
void logError(const std::string& message) noexcept;

} // namespace nq
