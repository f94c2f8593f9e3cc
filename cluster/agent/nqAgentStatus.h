#pragma once

#include "cluster/agent/nqAgentOptions.h"

namespace nq {

/// Prints what a queue and its agents do now. Throws nqPoolError when Redis cannot be asked.
void printStatus(const nqAgentOptions& options);

} // namespace nq
