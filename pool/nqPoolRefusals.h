#pragma once

#include "nqPoolOptions.h"

#include <cstddef>

namespace nq {

/// Throws nqPoolError for a job that plain workers cannot be given.
void refuseEmptyJob(std::size_t bytes, const nqPoolOptions& options);

} // namespace nq
