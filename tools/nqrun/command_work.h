#pragma once

#include "tools/nqrun/keeper.h"

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace nqrun {

/// The work of nqrun's worker processes: runs a command for each job. What it has printed and how
/// it ended stand in files of the host; the pool is told whether it has failed, and how in words.
class CommandWork {
public:
    void operator()(std::string_view job, std::vector<char>& /*result*/)
    {
        if (!mKeeper)
            mKeeper = std::make_unique<Keeper>();
        const std::optional<std::string> failure = mKeeper->run(job);
        if (!failure)
            mKeeper.reset(); // the next command gets another one
        if (!failure || !failure->empty())
            throw std::runtime_error(
                failure.value_or("lost: the process that watches over the command was ended"));
    }

private:
    std::unique_ptr<Keeper> mKeeper = std::make_unique<Keeper>();
};

} // namespace nqrun
