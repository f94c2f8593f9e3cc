#include "fixture.h"
#include "nqWorker.h"
#include "tests/common/frame.h"
#include "tests/common/rawSocket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

namespace {

using common::Descriptor;
using end_to_end::EndToEnd;
using end_to_end::Pool;
using end_to_end::TemporaryFolder;
using end_to_end::workerPath;

constexpr int limitMs = 60'000; // only a test that fails waits for so long

class ForeignUser : public EndToEnd {
protected:
    void SetUp() override
    {
        if (!common::mayChangeUser())
            GTEST_SKIP() << "only root can start a process of another user";
    }

    TemporaryFolder mFolder;
};

/// The other side may have hung up already, which is for the caller to find out.
void offerFrame(const Descriptor& socket, const std::string& payload)
{
    common::rawSend(socket, common::text(common::frame(payload)));
}

/// Whether the other side ends the connection without having sent a byte.
bool endsInSilence(const Descriptor& socket)
{
    char byte = 0;
    if (!common::becomesReadable(socket.get()))
        return false;
    const ssize_t count = ::recv(socket.get(), &byte, 1, MSG_DONTWAIT);
    return count == 0 || (count == -1 && errno == ECONNRESET);
}

class CountingWorker : public nq::nqWorker {
public:
    using nqWorker::nqWorker;

    void processJob(std::vector<char>& job, std::vector<char>& result) override
    {
        ++jobs;
        result = job;
    }

    int jobs = 0;
};

// The foreigner knows the pipe's name, is first in the queue and has a result ready. The worker
// waits with its own connection until it is.
TEST_F(ForeignUser, doesNotGetIntoAPoolAsAWorker)
{
    const std::string nameFifo = mFolder.addFifo("name");
    const std::string goFifo = mFolder.addFifo("go");
    const std::string script = mFolder.addScript(
        "worker",
        "printf %s \"$1\" >'" + nameFifo + "'\nread -r line <'" + goFifo + "'\nexec '" +
            workerPath() + "' \"$1\"\n");

    common::Child foreigner([&] {
        const int nameReader = ::open(nameFifo.c_str(), O_RDONLY | O_CLOEXEC);
        const std::string pipeName = common::readAll(nameReader);
        const int goWriter = ::open(goFifo.c_str(), O_WRONLY | O_CLOEXEC);
        const Descriptor socket = common::rawSocket();
        if (!common::becomeForeignUser() || !common::rawConnect(socket, pipeName))
            return 1;
        offerFrame(socket, "forged");
        if (::write(goWriter, "go\n", 3) != 3)
            return 2;
        return endsInSilence(socket) ? 0 : 3;
    });
    Pool pool(script, {});
    ASSERT_TRUE(pool.start(1));
    EXPECT_EQ(foreigner.wait(), 0) << "it is dropped and sees no byte of a job";
    EXPECT_EQ(pool.ask("echo genuine"), "genuine");
    EXPECT_EQ(pool.answers().size(), 1U);
    EXPECT_TRUE(pool.failures().empty());
}

TEST_F(ForeignUser, cannotPoseAsTheSchedulerOfAWorker)
{
    const std::string pipeName = "nq-foreign-scheduler-" + std::to_string(::getpid());
    const std::string listeningFifo = mFolder.addFifo("listening");
    common::Child foreigner([&] {
        const int listening = ::open(listeningFifo.c_str(), O_WRONLY | O_CLOEXEC);
        const Descriptor listener = common::rawSocket();
        if (!common::becomeForeignUser() || !common::rawListen(listener, pipeName))
            return 1;
        ::close(listening);
        const Descriptor connection(::accept(listener.get(), nullptr, nullptr));
        offerFrame(connection, "job");
        return endsInSilence(connection) ? 0 : 2;
    });
    const int listening = ::open(listeningFifo.c_str(), O_RDONLY | O_CLOEXEC);
    common::readAll(listening);
    ::close(listening);

    CountingWorker worker(pipeName);
    worker.processWorker(limitMs);
    EXPECT_TRUE(worker.hasFinished());
    EXPECT_EQ(worker.jobs, 0);
    EXPECT_EQ(foreigner.wait(), 0) << "it is dropped and gets no answer";
}

} // namespace
