// Kills hosts at random moments and watches their pools go. This process adopts whatever a host
// leaves behind, so that every death is an event here and "no child left" means that nobody lives.
//
// Options besides the test framework's: --hosts=N (all states together) and --seed=S.

#include "tests/chaos/processes.h"
#include "tests/chaos/sanitizer.h"
#include "tests/common/files.h"
#include "tests/common/random.h"
#include "tests/common/waiting.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <ostream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr milliseconds limitAfterKill{1000};
constexpr milliseconds limitForFirstWorker{60'000};
constexpr std::uint64_t latestKillUs =
    std::uint64_t{40'000} * chaos::slowness; // after the first sign of life
constexpr std::uint64_t atATime = 4;
constexpr std::size_t uuidLength = 36;

struct Options {
    std::uint64_t hosts = 200;
    std::uint64_t seed = 1;
};

Options& options()
{
    static Options all;
    return all;
}

struct State {
    const char* name;
    bool isKilledBlindly; // at any moment from its exec on, not only once a worker has connected
};

void PrintTo(const State& state, std::ostream* out)
{
    *out << state.name;
}

constexpr State states[] = {
    {"idle", false}, {"busy", false}, {"losing", false}, {"starting", true}, {"stopping", false}};

/// One host program, whose output this process reads.
class Host {
public:
    Host(const std::string& tag, const State& state, std::uint64_t seed, const std::string& folder)
    {
        int output[2];
        if (pipe2(output, O_CLOEXEC) != 0)
            throw std::runtime_error("no pipe");
        mOutput = output[0];
        fcntl(mOutput, F_SETFL, O_NONBLOCK);
        std::vector<std::string> arguments{NQ_KILLED_HOST, tag, state.name, std::to_string(seed)};
        std::vector<char*> texts;
        texts.reserve(arguments.size() + 1);
        for (std::string& argument : arguments)
            texts.push_back(argument.data());
        texts.push_back(nullptr);

        posix_spawn_file_actions_t actions{};
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
        posix_spawnattr_t attributes{};
        posix_spawnattr_init(&attributes);
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
        const int error =
            posix_spawn(&mPid, NQ_KILLED_HOST, &actions, &attributes, texts.data(), environ);
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
        close(output[1]);
        if (error != 0)
            throw std::runtime_error("the host program does not start");
    }

    ~Host()
    {
        close(mOutput);
    }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    bool showsWorkerWithin(milliseconds limit) const
    {
        return common::becomesReadable(mOutput, limit);
    }

    void kill() const
    {
        ::kill(mPid, SIGKILL); // not reaped yet, so the number is still its own
    }

    /// The names of its pipes, as far as its workers have told. Call when all of them are gone.
    std::set<std::string> pipeNames() const
    {
        std::istringstream lines(common::readAll(mOutput));
        std::set<std::string> names;
        for (std::string word; lines >> word;)
            if (word.size() == uuidLength)
                names.insert(word);
        return names;
    }

private:
    pid_t mPid = -1;
    int mOutput = -1;
};

/// Sees the ends of all descendants, orphans included.
class Undertaker {
public:
    Undertaker()
    {
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        sigset_t childSignal;
        sigemptyset(&childSignal);
        sigaddset(&childSignal, SIGCHLD);
        sigprocmask(SIG_BLOCK, &childSignal, &mBefore);
        mEvents = signalfd(-1, &childSignal, SFD_CLOEXEC | SFD_NONBLOCK);
    }
    ~Undertaker()
    {
        close(mEvents);
        sigprocmask(SIG_SETMASK, &mBefore, nullptr);
        prctl(PR_SET_CHILD_SUBREAPER, 0);
    }
    Undertaker(const Undertaker&) = delete;
    Undertaker& operator=(const Undertaker&) = delete;

    /// Whether all descendants end before the deadline. Reaps them.
    bool everybodyEndsBefore(Clock::time_point deadline) const
    {
        for (;;) {
            signalfd_siginfo event{};
            while (read(mEvents, &event, sizeof event) > 0) {
            }
            pid_t ended = 0;
            while ((ended = waitpid(-1, nullptr, WNOHANG)) > 0) {
            }
            if (ended == -1 && errno == ECHILD)
                return true;
            if (!common::becomesReady(mEvents, POLLIN, deadline))
                return false;
        }
    }

private:
    sigset_t mBefore{};
    int mEvents = -1;
};

/// An empty folder for everything that a host might want to write.
class Folder {
public:
    Folder()
    {
        setenv("TMPDIR", mFolder.path().c_str(), 1);
    }
    ~Folder()
    {
        unsetenv("TMPDIR");
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string path() const
    {
        return mFolder.path();
    }

    bool isEmpty() const
    {
        return std::filesystem::is_empty(path());
    }

private:
    common::TemporaryFolder mFolder;
};

std::set<std::string> namesIn(const std::string& folder)
{
    std::set<std::string> names;
    std::error_code unreadable;
    for (const auto& entry : std::filesystem::directory_iterator(folder, unreadable))
        names.insert(entry.path().filename().string());
    return names;
}

/// Where programs leave files that outlive them. The worker's own folder is its current one.
std::vector<std::string> usualFolders()
{
    return {
        "/tmp",
        "/var/tmp",
        "/dev/shm",
        "/run",
        std::filesystem::path(NQ_KILLED_HOST).parent_path().string()};
}

/// Everything on this machine that bears one of `names`: files and sockets.
std::vector<std::string> tracesOf(const std::set<std::string>& names)
{
    std::vector<std::string> places;
    std::ifstream sockets("/proc/net/unix");
    for (std::string line; std::getline(sockets, line);)
        places.push_back("socket " + line);
    for (const std::string& folder : usualFolders())
        for (const std::string& file : namesIn(folder))
            places.push_back((std::filesystem::path(folder) / file).string());
    places.erase(
        std::remove_if(
            places.begin(),
            places.end(),
            [&names](const std::string& place) {
                return std::none_of(names.begin(), names.end(), [&place](const std::string& name) {
                    return place.find(name) != std::string::npos;
                });
            }),
        places.end());
    return places;
}

class KilledHosts : public testing::TestWithParam<State> {
protected:
    /// Starts some hosts, kills each at a moment of its own, and returns how long the last
    /// descendant outlived the last kill.
    void killSome(std::uint64_t count)
    {
        const std::string tag = "chaos-killed-" + std::to_string(getpid()) + "-" +
                                std::to_string(mRandom.below(1'000'000'000)) + "-";
        std::vector<std::unique_ptr<Host>> hosts;
        for (std::uint64_t i = 0; i < count; ++i)
            hosts.push_back(
                std::make_unique<Host>(tag, GetParam(), mRandom.below(1'000'000), mFolder.path()));
        for (const auto& host : hosts) {
            if (!GetParam().isKilledBlindly) {
                ASSERT_TRUE(host->showsWorkerWithin(limitForFirstWorker));
            }
            liveOn(microseconds(mRandom.below(latestKillUs)));
            host->kill();
            mLastKill = Clock::now();
        }
        expectNobodyIsLeft(tag);
        std::set<std::string> names{tag};
        for (const auto& host : hosts)
            names.merge(host->pipeNames());
        mPipesSeen += names.size() - 1;
        EXPECT_EQ(tracesOf(names), std::vector<std::string>());
        EXPECT_TRUE(mFolder.isEmpty());
        mKilled += count;
    }

    void expectNobodyIsLeft(const std::string& tag)
    {
        const bool allEnded = mUndertaker.everybodyEndsBefore(mLastKill + limitAfterKill);
        mLongest = std::max(mLongest, Clock::now() - mLastKill);
        const std::vector<pid_t> survivors = chaos::processesWith(tag);
        EXPECT_TRUE(allEnded);
        EXPECT_EQ(survivors, std::vector<pid_t>());
        for (const pid_t survivor : survivors) {
            ADD_FAILURE() << "lives on: " << chaos::commandLine(survivor);
            chaos::ProcessWatch(survivor).kill(SIGKILL);
        }
        ASSERT_TRUE(mUndertaker.everybodyEndsBefore(Clock::now() + limitForFirstWorker));
    }

    /// The random moment of the kill, while every host goes on with what it does.
    static void liveOn(microseconds time)
    {
        const auto until = Clock::now() + time;
        while (Clock::now() < until)
            poll(nullptr, 0, 1);
    }

    common::SeededRandom mRandom{options().seed};
    Folder mFolder;
    Undertaker mUndertaker;
    Clock::time_point mLastKill;
    Clock::duration mLongest{};
    std::uint64_t mKilled = 0;
    std::size_t mPipesSeen = 0;
};

TEST_P(KilledHosts, leaveNobodyAliveAndNothingBehind)
{
    const std::uint64_t wanted = options().hosts / std::size(states);
    while (mKilled < wanted && !HasFailure())
        killSome(std::min(atATime, wanted - mKilled));
    EXPECT_GT(mPipesSeen, 0U) << "no worker of any host has ever connected";
    std::printf(
        "%s: %llu hosts killed, %zu pipes seen, longest from a kill to the last death %.1f ms, "
        "seed %llu\n",
        GetParam().name,
        static_cast<unsigned long long>(mKilled),
        mPipesSeen,
        std::chrono::duration<double, std::milli>(mLongest).count(),
        static_cast<unsigned long long>(options().seed));
}

INSTANTIATE_TEST_SUITE_P(When, KilledHosts, testing::ValuesIn(states), [](const auto& tested) {
    return std::string(tested.param.name);
});

bool understand(const std::string& argument)
{
    const std::size_t equals = std::min(argument.find('='), argument.size());
    const std::string name = argument.substr(0, equals);
    std::uint64_t number = 0;
    const char* const end = argument.data() + argument.size();
    const char* const digits = argument.data() + std::min(equals + 1, argument.size());
    const auto parsed = std::from_chars(digits, end, number);
    if (parsed.ec != std::errc{} || parsed.ptr != end)
        return false;
    if (name == "--hosts")
        options().hosts = number;
    else if (name == "--seed")
        options().seed = number;
    else
        return false;
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    for (int i = 1; i < argc; ++i)
        if (!understand(argv[i])) {
            std::fprintf(stderr, "unknown option %s; known are --hosts=N and --seed=S\n", argv[i]);
            return 2;
        }
    return RUN_ALL_TESTS();
}
