#include "fixture.h"
#include "nqWorker.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

using end_to_end::EndToEnd;
using end_to_end::Pool;
using end_to_end::TemporaryFolder;
using end_to_end::workerPath;

constexpr uid_t foreignUser = 65'534;
constexpr int limitMs = 60'000; // only a test that fails waits for so long

class ForeignUser : public EndToEnd {
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "only root can start a process of another user";
    }

    TemporaryFolder mFolder;
};

/// A forked process that runs `body`, ends with the number that it returns, and does not outlive
/// the test.
class Child {
public:
    template <typename Body>
    explicit Child(Body body)
        : mPid(::fork())
    {
        if (mPid != 0)
            return;
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::_exit(body());
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child()
    {
        if (mPid <= 0)
            return;
        ::kill(mPid, SIGKILL);
        wait();
    }

    /// The exit code, or -1 when a signal ended it.
    int wait()
    {
        int status = 0;
        while (::waitpid(std::exchange(mPid, -1), &status, 0) == -1 && errno == EINTR)
            continue;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t mPid;
};

bool becomeForeignUser()
{
    return ::setgroups(0, nullptr) == 0 &&
           ::setresgid(foreignUser, foreignUser, foreignUser) == 0 &&
           ::setresuid(foreignUser, foreignUser, foreignUser) == 0;
}

std::pair<sockaddr_un, socklen_t> addressOf(const std::string& pipeName)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, pipeName.data(), pipeName.size());
    return {address, static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + pipeName.size())};
}

int openSocket()
{
    return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

bool connectTo(int socket, const std::string& pipeName)
{
    const auto [address, size] = addressOf(pipeName);
    return ::connect(socket, reinterpret_cast<const sockaddr*>(&address), size) == 0;
}

bool listenUnder(int socket, const std::string& pipeName)
{
    const auto [address, size] = addressOf(pipeName);
    return ::bind(socket, reinterpret_cast<const sockaddr*>(&address), size) == 0 &&
           ::listen(socket, 1) == 0;
}

/// A job or a result as it stands on the pipe.
std::string frame(const std::string& payload)
{
    const auto length = static_cast<std::uint32_t>(payload.size());
    std::string bytes(sizeof length, '\0');
    std::memcpy(bytes.data(), &length, sizeof length);
    return bytes + payload;
}

/// The other side may have hung up already, which is for the caller to find out.
void offerFrame(int socket, const std::string& payload)
{
    const std::string bytes = frame(payload);
    ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

/// Whether the other side ends the connection without having sent a byte.
bool endsInSilence(int socket)
{
    pollfd readable{socket, POLLIN, 0};
    if (::poll(&readable, 1, limitMs) != 1)
        return false;
    char byte = 0;
    const ssize_t count = ::recv(socket, &byte, 1, MSG_DONTWAIT);
    return count == 0 || (count == -1 && errno == ECONNRESET);
}

std::string readAll(int fd)
{
    std::string text;
    char bytes[256];
    for (ssize_t count = 0; (count = ::read(fd, bytes, sizeof bytes)) > 0;)
        text.append(bytes, static_cast<std::size_t>(count));
    return text;
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

    Child foreigner([&] {
        const int nameReader = ::open(nameFifo.c_str(), O_RDONLY | O_CLOEXEC);
        const std::string pipeName = readAll(nameReader);
        const int goWriter = ::open(goFifo.c_str(), O_WRONLY | O_CLOEXEC);
        const int socket = openSocket();
        if (!becomeForeignUser() || !connectTo(socket, pipeName))
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
    Child foreigner([&] {
        const int listening = ::open(listeningFifo.c_str(), O_WRONLY | O_CLOEXEC);
        const int listener = openSocket();
        if (!becomeForeignUser() || !listenUnder(listener, pipeName))
            return 1;
        ::close(listening);
        const int connection = ::accept(listener, nullptr, nullptr);
        offerFrame(connection, "job");
        return endsInSilence(connection) ? 0 : 2;
    });
    const int listening = ::open(listeningFifo.c_str(), O_RDONLY | O_CLOEXEC);
    readAll(listening);
    ::close(listening);

    CountingWorker worker(pipeName);
    worker.processWorker(limitMs);
    EXPECT_TRUE(worker.hasFinished());
    EXPECT_EQ(worker.jobs, 0);
    EXPECT_EQ(foreigner.wait(), 0) << "it is dropped and gets no answer";
}

} // namespace
