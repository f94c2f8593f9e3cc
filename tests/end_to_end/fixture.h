#pragma once

#include "machine.h"
#include "pool.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace end_to_end {

/// Captures the log, and sees to it that a test leaves no process and no descriptor behind.
class EndToEnd : public testing::Test {
protected:
    EndToEnd();
    ~EndToEnd() override;

    CapturingLog mLog;

private:
    std::map<int, std::string> mDescriptorsBefore;
};

} // namespace end_to_end
