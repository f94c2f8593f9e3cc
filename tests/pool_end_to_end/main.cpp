#include "nqPoolWorker.h"
#include "tests/pool_end_to_end/test_work.h"

#include <gtest/gtest.h>

int main(int argc, char* argv[])
{
    nq::runAsWorker<pool_end_to_end::TestWork>(argc, argv);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
