#include "pool/include/nqOutcome.h"

#include "pool/nqFailureText.h"

namespace nq {

std::string nqAttempt::signalName() const
{
    return signal ? nameOfSignal(*signal) : std::string();
}

nqOutcome::operator bool() const
{
    return state == State::Done;
}

std::string_view nqOutcome::text() const
{
    return {bytes.data(), bytes.size()};
}

std::string nqOutcome::failureText() const
{
    return failureTextOf(*this);
}

} // namespace nq
