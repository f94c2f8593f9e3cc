#pragma once

#include "examples/contact_sheet/entry.h"
#include "examples/contact_sheet/options.h"
#include "examples/contact_sheet/progress.h"

#include <cstdint>
#include <vector>

namespace sheet {

/// How decodeAll ended.
enum class RunEnd {
    complete,    // every entry has its outcome
    notStarted,  // the pool could not be started; no entry has an outcome
    interrupted, // a stop signal came
    poolLost,    // no worker is left; the entries without an outcome became failures
};

/// Decodes all entries in a pool of worker processes and gives each its outcome, tiles of at most
/// `edge` pixels. Returns when the workers have ended.
RunEnd decodeAll(
    std::vector<Entry>& entries, std::uint32_t edge, const PoolLimits& limits, Progress& progress);

} // namespace sheet
