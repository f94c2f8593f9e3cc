#include "tools/nqrun/error.h"
#include "tools/nqrun/job_pool.h"

// In place of cluster_pool.cpp where the cluster is not built.

namespace nqrun {

std::unique_ptr<JobPool> makeClusterPool(
    const QueueAddress& /*address*/,
    const std::string& /*client*/,
    std::chrono::milliseconds /*jobTimeout*/)
{
    throw Error("this nqrun was built without the cluster, which --redis needs; build it where "
                "libhiredis-dev is installed, and NQ_BUILD_CLUSTER is not OFF");
}

} // namespace nqrun
