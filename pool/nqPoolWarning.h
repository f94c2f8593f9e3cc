#pragma once

#include <string>

namespace nq {

/// A line in the log for what went wrong without any harm to the jobs.
void warn(const std::string& message);

} // namespace nq
