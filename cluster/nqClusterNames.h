#pragma once

#include <string>

namespace nq {

/// Returns `name`, a `what` ("queue", "client", "agent"), or throws nqPoolError: it becomes a part
/// of keys and of what people read, and holds letters, digits, and "-_." only.
const std::string& requireName(const std::string& name, const char* what);

/// Of this machine and process, and like no other.
std::string uniqueName();

/// Sixteen hexadecimal digits that nobody else has.
std::string uniqueToken();

} // namespace nq
