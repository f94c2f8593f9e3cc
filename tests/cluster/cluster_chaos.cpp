// A submitter, two agents and a Redis server under random fire, and afterwards the account of every
// job.
//
//   usage: cluster_chaos [--seconds N] [--seed S]
#include "tests/cluster/redisServer.h"
#include "tests/cluster/stallingProxy.h"
#include "tests/common/files.h"

#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <poll.h>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using cluster::Program;
using cluster::RedisServer;
using cluster::StallingProxy;
using Clock = std::chrono::steady_clock;

constexpr int jobsOfOneRound = 2'000;
constexpr std::size_t eventsOfOneRound = 15;      // then it may come to its end
constexpr std::chrono::seconds longestRound{120}; // reached by a hang only

void require(bool isSo, const std::string& what)
{
    if (!isSo)
        throw std::runtime_error(what);
}

/// What a submitter has noted, run by run.
struct Ledger {
    explicit Ledger(const std::string& path);

    /// Throws what does not hold.
    void check(const std::set<int>& killedRuns);

    struct Job {
        int run;
        std::string text;
        std::vector<int> outcomes; ///< in which runs it had one
    };

    std::map<std::uint64_t, Job> jobs; ///< by id, which is the order of submission in each run
    std::vector<std::uint64_t> strangers;
    std::size_t done = 0;
    std::size_t failed = 0;
    std::size_t toldAgain = 0;
    std::size_t neverAccepted = 0;
    std::size_t dropped = 0;
    std::size_t sentAgain = 0;
};

Ledger::Ledger(const std::string& path)
{
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string kind;
        int run = 0;
        std::uint64_t id = 0;
        words >> kind >> run >> id;
        if (kind == "S") {
            std::string number;
            std::string text;
            words >> number >> std::ws;
            std::getline(words, text);
            Job& job = jobs[id];
            job.run = run;
            job.text = text;
        } else if (kind == "O") {
            int state = 0;
            std::string text;
            words >> state >> text;
            (state == 0 ? done : failed) += 1;
            Job& job = jobs[id];
            job.outcomes.push_back(run);
            if (state == 0 && job.text.substr(0, 5) == "echo ")
                require(job.text.substr(5) == text, "a wrong result: " + line);
        } else {
            std::size_t again = 0;
            words >> again;
            dropped += id;
            sentAgain += again;
        }
    }
}

// A submitter that is killed takes along what Redis had not accepted, the last of what it had
// submitted; and it may have been told an outcome that is told again.
void Ledger::check(const std::set<int>& killedRuns)
{
    std::set<int> incomplete;
    for (const auto& [id, job] : jobs) {
        const std::string name = "job " + std::to_string(id) + " (" + job.text + ")";
        require(!job.text.empty(), name + " has an outcome, but was never submitted");
        if (job.outcomes.empty()) {
            require(killedRuns.count(job.run) != 0, name + " has no outcome");
            incomplete.insert(job.run);
            ++neverAccepted;
            continue;
        }
        require(
            incomplete.count(job.run) == 0,
            name + " has an outcome, though one before it in its run has none");
        for (std::size_t i = 1; i < job.outcomes.size(); ++i) {
            require(
                job.outcomes[i] != job.outcomes[i - 1] &&
                    killedRuns.count(job.outcomes[i - 1]) != 0,
                name + " has two outcomes");
            ++toldAgain;
        }
    }
}

/// One round: everything that can die does.
class Round {
public:
    Round(unsigned seed, bool keepsData)
        : mRandom(seed),
          mKeepsData(keepsData),
          mRedis(
              keepsData ? std::vector<std::string>{"--appendonly", "yes", "--appendfsync", "always"}
                        : std::vector<std::string>{}),
          mProxy(std::make_unique<StallingProxy>(mFolder.file("proxy.sock"), mRedis.socket()))
    {
        for (std::unique_ptr<Program>& agent : mAgents)
            agent = startAgent();
        startSubmitter();
    }

    std::string play()
    {
        const auto end = Clock::now() + longestRound;
        auto nextEvent = Clock::now();
        while (!hasEnded()) {
            if (Clock::now() > end)
                fail("the round does not end");
            wake();
            if (Clock::now() >= nextEvent && mEvents.size() < eventsOfOneRound) {
                disturb();
                nextEvent = Clock::now() + std::chrono::milliseconds(100 + mRandom() % 500);
            }
            ::poll(nullptr, 0, 20);
        }
        require(mSubmitter->wait() == 0, "the submitter gave up: " + mSubmitter->printed());
        checkRedis();
        Ledger ledger(notes());
        ledger.check(mKilledRuns);
        std::ostringstream text;
        text << ledger.jobs.size() << " jobs: " << ledger.done << " done, " << ledger.failed
             << " failed, " << ledger.neverAccepted << " went with their submitter, "
             << ledger.toldAgain << " told again; " << ledger.dropped
             << " second outcomes dropped, " << ledger.sentAgain << " sent again; " << mEvents;
        return text.str();
    }

private:
    std::string notes() const
    {
        return mFolder.file("notes");
    }

    std::unique_ptr<Program> startAgent()
    {
        return std::make_unique<Program>(std::vector<std::string>{
            NQ_AGENT,
            "--redis",
            "unix:" + mFolder.file("proxy.sock"),
            "--queue",
            "tests",
            "--workers",
            "2",
            "--lease",
            "1",
            "--name",
            "agent" + std::to_string(++mAgentCount),
            "--",
            NQ_CLUSTER_WORKER});
    }

    void startSubmitter()
    {
        mSubmitter = std::make_unique<Program>(std::vector<std::string>{
            NQ_CHAOS_SUBMITTER,
            "unix:" + mFolder.file("proxy.sock"),
            notes(),
            std::to_string(++mRun),
            std::to_string(jobsOfOneRound),
            std::to_string(mRandom() % 1'000)});
    }

    bool hasEnded() const
    {
        const std::string all = common::contentOf(notes());
        return all.find("\nE ") != std::string::npos;
    }

    /// What was stopped goes on.
    void wake()
    {
        for (auto each = mStopped.begin(); each != mStopped.end();) {
            if (Clock::now() < each->first) {
                ++each;
                continue;
            }
            each->second();
            each = mStopped.erase(each);
        }
    }

    void disturb()
    {
        std::unique_ptr<Program>& agent = mAgents[mRandom() % mAgents.size()];
        switch (mRandom() % 9) {
        case 0:
            note('k');
            agent = startAgent(); // the one before is killed
            break;
        case 1: {
            note('t');
            agent->signal(SIGCONT);
            agent->signal(SIGTERM);
            mLeaving.push_back(std::move(agent));
            agent = startAgent();
            break;
        }
        case 2:
        case 3: {
            note('s');
            const pid_t pid = agent->pid();
            ::kill(pid, SIGSTOP);
            // A child that is not reaped keeps its number; one that is gone since was replaced.
            goOnLater(200 + mRandom() % 2'000, [this, pid] {
                for (const std::unique_ptr<Program>& each : mAgents) {
                    if (each->pid() == pid)
                        ::kill(pid, SIGCONT);
                }
            });
            break;
        }
        case 4:
            note('r');
            mRedis.kill();
            mRedis.start();
            break;
        case 5:
            note('p');
            mRedis.signal(SIGSTOP);
            goOnLater(100 + mRandom() % 1'500, [this] { mRedis.signal(SIGCONT); });
            break;
        case 6:
            note('x');
            mProxy->stallThoseThereAre();
            break;
        default:
            if (!mKeepsData || hasEnded())
                break; // what Redis and the submitter have both lost is lost
            note('u');
            mSubmitter->signal(SIGKILL);
            mSubmitter->wait();
            mKilledRuns.insert(mRun);
            startSubmitter();
        }
    }

    void goOnLater(long ms, const std::function<void()>& goOn)
    {
        mStopped.emplace_back(Clock::now() + std::chrono::milliseconds(ms), goOn);
    }

    void note(char event)
    {
        mEvents += event;
    }

    [[noreturn]] void fail(const std::string& what)
    {
        for (const auto& [time, goOn] : mStopped)
            goOn();
        throw std::runtime_error(what + '\n' + state());
    }

    std::string state()
    {
        std::string text = "events: " + mEvents +
                           "\njobs in Redis: " + mRedis.ask({"XLEN", "nq:{tests}:jobs"}) +
                           "\nclient:\n" + mRedis.ask({"HGETALL", "nq:{tests}:client:chaos"}) +
                           "outcomes: " + mRedis.ask({"XLEN", "nq:{tests}:out:chaos"}) +
                           "\npending:\n" + mRedis.ask({"XPENDING", "nq:{tests}:jobs", "agents"}) +
                           "\nagents:\n" + mRedis.ask({"HGETALL", "nq:{tests}:agents"});
        for (const std::unique_ptr<Program>& agent : mAgents)
            text += "\nagent: " + agent->printed();
        return text + "\nsubmitter: " + mSubmitter->printed();
    }

    /// Agents that are left finish what a submitter has given up; nothing else may be there.
    void checkRedis()
    {
        for (const auto& [time, goOn] : mStopped)
            goOn();
        const auto end = Clock::now() + longestRound;
        while (mRedis.ask({"XLEN", "nq:{tests}:jobs"}) != "0") {
            if (Clock::now() > end)
                fail("jobs are left in the queue");
            ::poll(nullptr, 0, 20);
        }
        if (mRedis.ask({"XLEN", "nq:{tests}:out:chaos"}) == "0")
            return;
        // Redis was away when the submitter had been told these: they are there for the next one.
        mKilledRuns.insert(mRun);
        startSubmitter();
        require(mSubmitter->wait() == 0, "the last submitter gave up: " + mSubmitter->printed());
        if (mRedis.ask({"XLEN", "nq:{tests}:out:chaos"}) != "0")
            fail("outcomes are left in Redis");
    }

    std::mt19937 mRandom;
    bool mKeepsData;
    common::TemporaryFolder mFolder;
    RedisServer mRedis;
    std::unique_ptr<StallingProxy> mProxy;
    std::vector<std::unique_ptr<Program>> mAgents = std::vector<std::unique_ptr<Program>>(2);
    std::vector<std::unique_ptr<Program>> mLeaving;
    std::unique_ptr<Program> mSubmitter;
    std::vector<std::pair<Clock::time_point, std::function<void()>>> mStopped;
    std::set<int> mKilledRuns;
    std::string mEvents;
    int mRun = 0;
    int mAgentCount = 0;
};

} // namespace

int main(int argc, char* argv[])
{
    long seconds = 30;
    unsigned seed = 1;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::string(argv[i]) == "--seconds")
            seconds = std::stol(argv[i + 1]);
        else if (std::string(argv[i]) == "--seed")
            seed = static_cast<unsigned>(std::stoul(argv[i + 1]));
    }
    if (!RedisServer::isInstalled()) {
        std::cout << "redis-server is not installed\n";
        return 77;
    }
    ::signal(SIGPIPE, SIG_IGN);
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    int round = 0;
    do {
        try {
            const bool keepsData = (seed + static_cast<unsigned>(round)) % 3 != 0;
            Round play(seed + static_cast<unsigned>(round) * 1'000'003U, keepsData);
            std::cout << "round " << round << (keepsData ? ": " : " (Redis forgets): ")
                      << play.play() << std::endl;
        } catch (const std::exception& error) {
            std::cout << "seed " << seed << ", round " << round << ": " << error.what()
                      << std::endl;
            return 1;
        }
        ++round;
    } while (Clock::now() < end);
    return 0;
}
