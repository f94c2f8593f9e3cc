#include "tools/nqrun/command_work.h"
#include "tools/nqrun/error.h"
#include "tools/nqrun/io.h"
#include "tools/nqrun/options.h"
#include "tools/nqrun/run.h"
#include "tools/nqrun/status_view.h"
#include "tools/nqrun/stop_signals.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <nqPoolWorker.h>
#include <string>
#include <unistd.h>

namespace {

// A stream that the shell has closed would otherwise be the next file that is opened.
void fillStandardStreams()
{
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        if (::fcntl(stream, F_GETFD) >= 0)
            continue;
        // The wrong way round, so that using it fails as using a closed one does.
        const int mode = stream == STDIN_FILENO ? O_WRONLY : O_RDONLY;
        if (::open("/dev/null", mode) < 0)
            std::_Exit(nqrun::exitOwnError);
    }
}

int exitStatus(const nqrun::RunResult& result)
{
    if (result.signal != 0) { // so that a shell script that runs this sees what has happened
        std::signal(result.signal, SIG_DFL);
        std::raise(result.signal);
    }
    constexpr std::uint64_t most = nqrun::mostFailuresTold;
    return static_cast<int>(result.failed <= most ? result.failed : most + 1);
}

int runCommands(int argc, char* argv[])
{
    // What cannot be written is an error of the write. Commands start with neither ignored.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    fillStandardStreams();
    if (argc > 1 && std::strcmp(argv[1], "status") == 0) {
        if (argc != 3)
            throw nqrun::Error(
                "usage: nqrun status FILE (a command of this name: nqrun -- status)");
        return nqrun::showStatus(argv[2]);
    }
    int status = 0;
    const std::optional<nqrun::Options> options =
        nqrun::parseOptions(argc, argv, "nqrun " NQRUN_VERSION "\n", status);
    if (!options)
        return status;
    if (options->isDryRun)
        return exitStatus(nqrun::dryRun(*options));
    nqrun::StopSignals::watch();
    nqrun::RunResult result;
    {
        nqrun::Run run(*options);
        result = run.run();
    }
    return exitStatus(result);
}

} // namespace

int main(int argc, char* argv[])
try {
    nq::runAsWorker<nqrun::CommandWork>(argc, argv);
    return runCommands(argc, argv);
} catch (const std::exception& error) {
    nqrun::writeAll(STDERR_FILENO, std::string("nqrun: ") + error.what() + '\n');
    return nqrun::exitOwnError;
}
