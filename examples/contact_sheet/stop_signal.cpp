#include "examples/contact_sheet/stop_signal.h"

#include <csignal>

namespace sheet {

namespace {

volatile std::sig_atomic_t receivedSignal = 0;

extern "C" void rememberSignal(int signal)
{
    receivedSignal = signal;
}

} // namespace

void watchForStopSignals()
{
    struct sigaction action = {};
    action.sa_handler = rememberSignal;
    // The wait inside the pump must be cut short, so there is no SA_RESTART.
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

int stopSignal()
{
    return receivedSignal;
}

} // namespace sheet
