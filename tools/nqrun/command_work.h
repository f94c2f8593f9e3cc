#pragma once

#include "tools/nqrun/keeper.h"

#include <memory>
#include <string_view>
#include <vector>

namespace nqrun {

/// The work of nqrun's worker processes: runs a command for each job. What it has printed and how
/// it ended stand in files of the host; the pool is told whether it has failed, and how.
class CommandWork {
public:
    void operator()(std::string_view job, std::vector<char>& result);

private:
    std::unique_ptr<Keeper> mKeeper = std::make_unique<Keeper>();
};

} // namespace nqrun
