#include "nqPool.h"
#include "nqScheduler.h"
#include "pool/nqEnvelope.h"
#include "pool/nqOwnProgram.h"
#include "pool/nqWorkerStart.h"
#include "tests/end_to_end/fixture.h"
#include "tests/pool_end_to_end/test_work.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <linux/capability.h>
#include <optional>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

// What happens to the executable of a host while it runs, and rights that it should not have.

namespace {

using end_to_end::ChildProgram;
using end_to_end::EndToEnd;
using end_to_end::TemporaryFolder;
using pool_end_to_end::programFile;

const std::string original = NQ_OWN_PROGRAM_HOST;

constexpr int wasRefused = 3;
constexpr int loaderFailed = 127;

/// A host with a program file of its own, which runs what it is asked in a worker.
class RunningHost {
public:
    explicit RunningHost(const TemporaryFolder& folder)
        : mPath(folder.file("host")),
          mJobs(folder.addFifo("jobs"), std::ios::in | std::ios::out)
    {
        std::filesystem::copy_file(original, mPath);
        mFile = programFile(mPath);
        mProgram.emplace(mPath, std::vector<std::string>{"serve", folder.file("jobs")});
    }

    const std::string& path() const
    {
        return mPath;
    }

    /// Which its workers have to be, whatever becomes of its path.
    const std::string& file() const
    {
        return mFile;
    }

    std::string ask(const std::string& job)
    {
        mJobs << job << std::endl;
        return mProgram->readLine();
    }

    /// A worker launched from now on runs the job.
    std::string askNewWorker(const std::string& job)
    {
        ask("exit 1");
        return ask(job);
    }

private:
    std::string mPath;
    std::string mFile;
    std::fstream mJobs; // open at both ends, so that neither side waits for the other
    std::optional<ChildProgram> mProgram;
};

class UpgradedProgram : public EndToEnd {
protected:
    TemporaryFolder mFolder;
    RunningHost mHost{mFolder};
};

/// Gives the right to use low port numbers, by the file's attribute. False when it takes none.
bool giveCapability(const std::string& path)
{
    vfs_cap_data capability{};
    capability.magic_etc = VFS_CAP_REVISION_2 | VFS_CAP_FLAGS_EFFECTIVE;
    capability.data[0].permitted = 1U << CAP_NET_BIND_SERVICE;
    return ::setxattr(path.c_str(), "security.capability", &capability, XATTR_CAPS_SZ_2, 0) == 0;
}

TEST_F(UpgradedProgram, isStillItsOwnWorkerWhenItsFileIsDeleted)
{
    EXPECT_EQ(mHost.ask("file"), mHost.file());
    std::filesystem::remove(mHost.path());
    EXPECT_EQ(mHost.askNewWorker("file"), mHost.file());
}

TEST_F(UpgradedProgram, isStillItsOwnWorkerWhenItsFolderIsDeletedToo)
{
    EXPECT_EQ(mHost.ask("file"), mHost.file());
    std::filesystem::remove_all(mFolder.path());
    EXPECT_EQ(mHost.askNewWorker("file"), mHost.file());
}

TEST_F(UpgradedProgram, isStillItsOwnWorkerWhenANewVersionHasItsPath)
{
    std::filesystem::copy_file(original, mFolder.file("new"));
    std::filesystem::rename(mFolder.file("new"), mHost.path());
    EXPECT_EQ(mHost.askNewWorker("file"), mHost.file());
}

TEST_F(UpgradedProgram, isStillItsOwnWorkerWhenAnotherProgramHasItsPath)
{
    mFolder.addScript("new", "exit 1\n");
    std::filesystem::rename(mFolder.file("new"), mHost.path());
    EXPECT_EQ(mHost.askNewWorker("file"), mHost.file());
}

TEST_F(UpgradedProgram, isStartedByItsPathUntilThen)
{
    EXPECT_EQ(mHost.ask("called"), mHost.path());
    EXPECT_EQ(mHost.askNewWorker("called"), mHost.path());
    std::filesystem::remove(mHost.path());
    EXPECT_EQ(mHost.askNewWorker("called").substr(0, 14), "/proc/self/fd/");
}

// The pool has chosen the path, and the new version is there before the worker is started.
TEST(UpgradeDuringALaunch, givesAWorkerThatTurnsIntoTheHostsProgram)
{
    const TemporaryFolder folder;
    const std::string upgraded = folder.file("upgraded");
    std::filesystem::copy_file(original, upgraded);
    ASSERT_NE(programFile(upgraded), programFile());

    const nq::nqOwnExecutable own;
    nq::nqWorkerStart start;
    start.tag = nq::nqEnvelope::freshTag();
    start.host = ::getpid();
    start.program = nq::nqWorkerStart::Program{own.identity(), own.descriptor()};
    const nq::nqEnvelope envelope(start.tag);
    end_to_end::Pool pool(upgraded, {});
    pool.scheduler().setArgumentsUtf8({start.argument()}, false);
    ASSERT_TRUE(pool.start(1));
    const std::vector<char> initialise = envelope.initialise();
    const std::string answer = pool.ask({initialise.data(), initialise.size()});
    std::vector<char> bytes(answer.begin(), answer.end());
    nq::nqEnvelope::Exception unused;
    EXPECT_EQ(envelope.open(bytes, unused), nq::nqEnvelope::Answer::Initialised);
    EXPECT_EQ(pool.ask("file"), programFile());
}

TEST(UpgradeDuringALaunch, failsTheLaunchWhenTheHostHasClosedItsProgram)
{
    const TemporaryFolder folder;
    const std::string upgraded = folder.file("upgraded");
    std::filesystem::copy_file(original, upgraded);

    nq::nqWorkerStart start;
    start.tag = nq::nqEnvelope::freshTag();
    start.host = ::getpid();
    start.program = nq::nqWorkerStart::Program{nq::nqOwnExecutable().identity(), STDIN_FILENO};
    ChildProgram worker(upgraded, {start.argument(), "pipe"});
    EXPECT_EQ(
        worker.readAllErrors(),
        upgraded + ": the program of the host has been replaced, and the host no longer holds it "
                   "open\n");
    EXPECT_EQ(worker.waitForEnd(), 1);
}

class ElevatedRights : public EndToEnd {
protected:
    ElevatedRights()
    {
        std::filesystem::copy_file(original, mPath);
    }

    TemporaryFolder mFolder;
    const std::string mPath = mFolder.file("host");
};

TEST_F(ElevatedRights, ofTheFileAreRefused)
{
    if (!giveCapability(mPath))
        GTEST_SKIP() << "this file system, or this user, gives no file capabilities: errno "
                     << errno;
    ChildProgram elevated(mPath, {"serve", "/dev/null"});
    const std::string refusal = elevated.readAllErrors();
    EXPECT_EQ(
        refusal.substr(0, refusal.find(';')),
        "This program cannot be its own worker: its file has capabilities, as getcap shows");
    EXPECT_EQ(elevated.waitForEnd(), wasRefused);
}

#ifndef __SANITIZE_ADDRESS__ // whose search for leaks may not look into such a process
/// By the mount of its file system, or because this process may never gain rights.
bool ignoresSetUserId(const std::string& path)
{
    struct statvfs system {};
    return ::statvfs(path.c_str(), &system) != 0 || (system.f_flag & ST_NOSUID) != 0 ||
           ::prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 1;
}

TEST_F(ElevatedRights, ofAnotherUserAreRefused)
{
    constexpr uid_t other = 65'534;
    if (::chown(mPath.c_str(), other, static_cast<gid_t>(-1)) != 0 ||
        ::chmod(mPath.c_str(), S_ISUID | 0755) != 0)
        GTEST_SKIP() << "only root gives files to another user";
    if (ignoresSetUserId(mPath))
        GTEST_SKIP() << "set-user-ID has no effect here";
    ChildProgram elevated(mPath, {"serve", "/dev/null"});
    const std::string refusal = elevated.readAllErrors();
    const int status = elevated.waitForEnd();
    if (status == loaderFailed)
        GTEST_SKIP() << "the other user may not read the libraries: " << refusal;
    EXPECT_EQ(
        refusal.substr(0, refusal.find(',')),
        "This program cannot be its own worker: it has more rights than who started it");
    EXPECT_EQ(status, wasRefused);
}
#endif

} // namespace
