#include "pool/include/nqOutcome.h"

namespace nq {

nqOutcome::operator bool() const
{
    return state == State::Done;
}

std::string_view nqOutcome::text() const
{
    return {bytes.data(), bytes.size()};
}

} // namespace nq
