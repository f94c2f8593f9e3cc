#include "pool/nqPoolRefusals.h"

#include "pool/include/nqPool.h"

namespace nq {

void refuseEmptyJob(std::size_t bytes, const nqPoolOptions& options)
{
    if (bytes == 0 && options.plainWorker)
        throw nqPoolError("A plain worker cannot be given an empty job: let it call runAsWorker(), "
                          "or put at least one byte into the job");
}

} // namespace nq
