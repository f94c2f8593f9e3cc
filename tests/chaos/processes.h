#pragma once

#include "tests/common/processes.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace chaos {

using common::commandLine;
using common::ProcessWatch;

/// The living processes, this one excepted, one of whose arguments holds `text`.
std::vector<pid_t> processesWith(const std::string& text);

} // namespace chaos
