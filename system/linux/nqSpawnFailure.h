#pragma once

#include "system/linux/nqSpawn.h"

#include <string>

namespace nq {

/// Why a program could not be started, for people: the kernel's error and, where that leaves
/// several causes open, the likely one.
std::string describeSpawnFailure(const nqSpawnRequest& request, const nqSpawnResult& failure);

} // namespace nq
