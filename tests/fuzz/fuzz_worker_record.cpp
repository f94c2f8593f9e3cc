// Records of hostile workers beside their model: the input makes the choices that a seed makes in
// the tests of the model, so that the fuzzer looks for the round in which library and model differ.

#include "tests/fuzz/expectation.h"
#include "tests/fuzz/input.h"
#include "tests/model/workerRound.h"

#include <cstdint>
#include <string>

namespace {

constexpr int mostSteps = 500; // as in the tests of the model

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Input input(data, size);
    model::Seen seen;
    model::WorkerRound round(input, seen);
    std::string difference;
    for (int step = 0; step < mostSteps && difference.empty() && !input.isAtEnd(); ++step)
        difference = round.step();
    if (difference.empty())
        difference = round.end();
    fuzz::require(difference.empty(), (round.whatItDid() + difference).c_str());
    return 0;
}
