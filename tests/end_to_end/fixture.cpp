#include "fixture.h"

#include "nqProcess.h"

#include <chrono>
#include <csignal>

namespace end_to_end {

namespace {

constexpr std::chrono::seconds endLimit{10}; // for what was killed a moment ago

/// The library may keep what it opens once for the life of the host, and the mark is set once.
void prepareHostOnce()
{
    static const bool prepared = [] {
        markDescendants();
        Pool pool;
        return pool.start(1);
    }();
    ASSERT_TRUE(prepared);
}

/// Waits for the end of `process`; one that stays is reported and ended here.
void expectEnd(pid_t process)
{
    const std::string what = commandLine(process);
    const ProcessWatch watch(process);
    if (watch.endsWithin(endLimit))
        return;
    ADD_FAILURE() << "left behind: " << process << ' ' << what;
    watch.kill(SIGKILL);
    watch.endsWithin(generousLimit);
}

void expectNoProcess()
{
    // What was killed a moment ago may still be on its way out.
    for (const pid_t process : markedProcesses())
        expectEnd(process);
    EXPECT_TRUE(markedProcesses().empty());

    // A process that took long to die is reaped by the next use of any process object.
    for (const pid_t child : children())
        expectEnd(child);
    nq::nqProcess().waitForFinished(0);
    for (const pid_t child : children())
        ADD_FAILURE() << "never reaped: " << child << ' ' << commandLine(child);
}

} // namespace

EndToEnd::EndToEnd()
{
    prepareHostOnce();
    mDescriptorsBefore = openDescriptors();
}

EndToEnd::~EndToEnd()
{
    expectNoProcess();
    EXPECT_EQ(openDescriptors(), mDescriptorsBefore);
}

} // namespace end_to_end
