#pragma once

#include "tools/nqrun/keeper.h"

#include <stdexcept>
#include <string_view>
#include <vector>

namespace nqrun {

/// The work of nqrun's worker processes: runs a command for each job. What it has printed and how
/// it ended stand in files of the host; the pool is told whether it has failed, and how in words.
class CommandWork {
public:
    void operator()(std::string_view job, std::vector<char>& /*result*/)
    {
        const std::string failure = mKeeper.run(job);
        if (!failure.empty())
            throw std::runtime_error(failure);
    }

private:
    Keeper mKeeper;
};

} // namespace nqrun
