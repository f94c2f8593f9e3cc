#include "tools/nqrun/error.h"
#include "tools/nqrun/job_pool.h"

#include <gtest/gtest.h>
#include <string>

namespace nqrun {
namespace {

TEST(ClusterPool, isRefusedByAProgramThatWasBuiltWithoutIt)
{
    try {
        makeClusterPool({"unix:redis.sock", "queue", ""}, "", std::chrono::milliseconds(0));
        ADD_FAILURE() << "it is made";
    } catch (const Error& error) {
        EXPECT_EQ(
            std::string(error.what()),
            "this nqrun was built without the cluster, which --redis needs; build it where "
            "libhiredis-dev is installed, and NQ_BUILD_CLUSTER is not OFF");
    }
}

} // namespace
} // namespace nqrun
