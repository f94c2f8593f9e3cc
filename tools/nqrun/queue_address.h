#pragma once

#include <string>

namespace nqrun {

/// Where the agents of a cluster get their jobs from.
struct QueueAddress {
    std::string redis; ///< empty: there is none
    std::string queue;
    std::string passwordFile; ///< empty: by the environment
};

} // namespace nqrun
