// Serves a queue of jobs on this machine: see nqAgentOptions.cpp for what it is told.
#include "cluster/agent/nqAgent.h"
#include "cluster/agent/nqAgentOptions.h"
#include "cluster/agent/nqAgentStatus.h"
#include "cluster/nqDescriptor.h"

#include <csignal>
#include <iostream>
#include <sys/eventfd.h>

namespace {

int requests = -1; // readable once the program is asked to leave

void onSignal(int)
{
    const int kept = errno;
    ::eventfd_write(requests, 1);
    errno = kept;
}

void catchSignals()
{
    struct sigaction action {};
    action.sa_handler = onSignal;
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);
}

} // namespace

int main(int argc, char* argv[])
try {
    const std::optional<nq::nqAgentOptions> options = nq::nqAgentOptions::parse(argc, argv);
    if (!options)
        return 0;
    if (options->isStatusWanted) {
        nq::printStatus(*options);
        return 0;
    }
    const nq::nqDescriptor signals(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    requests = signals.get();
    catchSignals();
    return nq::nqAgent(*options, signals.get()).run();
} catch (const std::exception& error) {
    std::cerr << "nq-agent: " << error.what() << '\n';
    return 2;
}
