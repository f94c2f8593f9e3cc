#include "nqPoolWorker.h"
#include "tests/pool_end_to_end/test_work.h"

int main(int argc, char* argv[])
{
    return nq::runWorker<pool_end_to_end::TestWork>(argc, argv);
}
