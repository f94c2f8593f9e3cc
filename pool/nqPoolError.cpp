#include "pool/include/nqPool.h"

namespace nq {

// Here, so that its type information exists once.
nqPoolError::~nqPoolError() = default;

} // namespace nq
