#include "nqPool.h"
#include "tests/common/descriptors.h"
#include "tests/common/files.h"
#include "tests/end_to_end/fixture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

using nq::nqPoolOptions;

/// Sends one of this process's standard streams into a file until the end of the scope.
class Redirected {
public:
    Redirected(int stream, const std::string& path)
        : mStream(stream),
          mBefore(::fcntl(stream, F_DUPFD_CLOEXEC, 0))
    {
        const common::Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        ::dup2(file.get(), stream);
    }
    ~Redirected()
    {
        ::dup2(mBefore.get(), mStream);
    }
    Redirected(const Redirected&) = delete;
    Redirected& operator=(const Redirected&) = delete;

private:
    int mStream;
    common::Descriptor mBefore;
};

/// A worker that prints "out: TEXT" and "err: TEXT", and what of it comes to the host's streams.
class WorkerOutput : public end_to_end::EndToEnd {
protected:
    WorkerOutput()
    {
        mOptions.worker = end_to_end::workerPath();
        mOptions.plainWorker = true;
        mOptions.workers = 1;
    }

    void run()
    {
        const Redirected out(STDOUT_FILENO, mFolder.file("out"));
        const Redirected err(STDERR_FILENO, mFolder.file("err"));
        nq::nqPool pool(mOptions);
        pool.submit("print text");
        EXPECT_TRUE(pool.drain());
        pool.submit("crash");
        pool.drain();
    }

    std::string printedTo(const std::string& stream) const
    {
        return common::contentOf(mFolder.file(stream));
    }

    const common::TemporaryFolder mFolder;
    nqPoolOptions mOptions;
};

TEST_F(WorkerOutput, goesNowhereByDefault)
{
    run();
    EXPECT_EQ(printedTo("out"), "");
    EXPECT_EQ(printedTo("err"), "");
}

TEST_F(WorkerOutput, goesNowhereWithTheNullDeviceAsStandardError)
{
    mOptions.standardError = nqPoolOptions::StandardError::NullDevice;
    run();
    EXPECT_EQ(printedTo("out"), "");
    EXPECT_EQ(printedTo("err"), "");
}

TEST_F(WorkerOutput, goesToTheHostWhereItsStandardOutputIsInherited)
{
    mOptions.inheritStandardOutput = true;
    run();
    EXPECT_EQ(printedTo("out"), "out: text\n");
    EXPECT_EQ(printedTo("err"), "");
}

TEST_F(WorkerOutput, goesToTheHostsStandardErrorWhereThatIsForwarded)
{
    mOptions.standardError = nqPoolOptions::StandardError::Forward;
    run();
    EXPECT_EQ(printedTo("out"), "");
    EXPECT_EQ(printedTo("err"), "err: text\n");
}

TEST_F(WorkerOutput, toStandardErrorIsSilencedBesideAnInheritedStandardOutput)
{
    mOptions.inheritStandardOutput = true;
    mOptions.standardError = nqPoolOptions::StandardError::NullDevice;
    run();
    EXPECT_EQ(printedTo("out"), "out: text\n");
    EXPECT_EQ(printedTo("err"), "");
}

} // namespace
