#include "tools/nqrun/stop_signals.h"

#include "tools/nqrun/error.h"
#include "tools/nqrun/io.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <sys/eventfd.h>
#include <unistd.h>

namespace nqrun {

namespace {

volatile std::sig_atomic_t lastSignal = 0;
volatile std::sig_atomic_t wished = 0;
int news = -1;

extern "C" void noteSignal(int signal)
{
    const int error = errno;
    lastSignal = signal;
    wished = signal == SIGINT && wished == 0 ? 1 : 2;
    const std::uint64_t one = 1;
    if (::write(news, &one, sizeof one) < 0) { // it is readable already
    }
    errno = error;
}

} // namespace

void StopSignals::watch()
{
    news = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (news < 0)
        throw Error("signals cannot be watched: " + lastError());
    struct sigaction action {};
    action.sa_handler = noteSignal; // without SA_RESTART: a write that blocks is interrupted
    sigemptyset(&action.sa_mask);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction former {};
        ::sigaction(signal, nullptr, &former);
        if (former.sa_handler != SIG_IGN)
            ::sigaction(signal, &action, nullptr);
    }
}

StopSignals::Wish StopSignals::wish()
{
    switch (wished) {
    case 0:
        return Wish::None;
    case 1:
        return Wish::Finish;
    default:
        return Wish::End;
    }
}

int StopSignals::signal()
{
    return lastSignal;
}

int StopSignals::descriptor()
{
    return news;
}

void StopSignals::empty()
{
    std::uint64_t count = 0;
    if (::read(news, &count, sizeof count) < 0) { // it was empty
    }
}

} // namespace nqrun
