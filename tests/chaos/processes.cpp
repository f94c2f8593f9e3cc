#include "tests/chaos/processes.h"

#include <algorithm>

namespace chaos {

std::vector<pid_t> processesWith(const std::string& text)
{
    std::vector<pid_t> processes = common::allProcesses();
    const auto isOther = [&text](pid_t process) {
        return process == getpid() || commandLine(process).find(text) == std::string::npos;
    };
    processes.erase(std::remove_if(processes.begin(), processes.end(), isOther), processes.end());
    return processes;
}

} // namespace chaos
