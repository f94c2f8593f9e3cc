#pragma once

#include "tests/common/promises.h"
#include "tests/model/world.h"

#include <string>
#include <vector>

namespace model {

/// Keeps what it is told as lines, to be compared with those of the model.
class ToldLines : public common::Promises {
public:
    void onEvent(const nq::nqSchedulerEvent& event) noexcept override;

    /// What was told since the last call.
    std::vector<std::string> takeLines();

private:
    std::vector<std::string> mLines;
};

} // namespace model
