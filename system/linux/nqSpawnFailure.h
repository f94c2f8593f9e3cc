#pragma once

#include "system/linux/nqSpawn.h"

#include <string>

namespace nq {

/// Says for people why a program could not be started: what the kernel said, and where that leaves
/// several causes open, which of them it is.
std::string describeSpawnFailure(const nqSpawnRequest& request, const nqSpawnResult& failure);

} // namespace nq
