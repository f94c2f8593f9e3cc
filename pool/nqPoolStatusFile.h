#pragma once

#include "pool/include/nqPoolStatus.h"

#include <string>

namespace nq {

/// The content of a status file, which readPoolStatus() reads.
std::string statusText(const nqPoolStatus& status);

} // namespace nq
