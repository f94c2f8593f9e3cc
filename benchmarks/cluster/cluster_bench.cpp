// What a cluster on one machine reaches, beside the bare commands of Redis with as many
// connections. Prints one line for each figure, with its ratio to that of the bare commands. See
// README.md.
//
//   usage: cluster_bench [JOBS]
#include "cluster/nqClusterScripts.h"
#include "tests/cluster/redisServer.h"

#include <nqClusterPool.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <hiredis/hiredis.h>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using cluster::Program;
using cluster::RedisServer;
using Clock = std::chrono::steady_clock;

constexpr int pipelined = 128;
constexpr int rounds = 5;

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void show(const std::string& what, double value, const std::string& unit)
{
    std::cout << what << ": " << value << ' ' << unit << std::endl;
}

double medianOf(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

struct Contestant {
    std::string name;
    std::function<double()> measure;
    std::vector<double> figures;
    std::vector<double> ratios; ///< to the first contestant in the same round
};

/// In turn, several times over, so that what else the machine does meets all of them. Shows the
/// medians.
void compare(const std::string& what, const std::string& unit, std::vector<Contestant> contestants)
{
    for (int round = 0; round < rounds; ++round) {
        for (Contestant& each : contestants) {
            each.figures.push_back(each.measure());
            each.ratios.push_back(each.figures.back() / contestants.front().figures.back());
        }
    }
    for (const Contestant& each : contestants) {
        std::ostringstream ratio;
        if (&each != &contestants.front())
            ratio << ", " << std::setprecision(2) << medianOf(each.ratios) << " of "
                  << contestants.front().name;
        show(what + ", " + each.name, medianOf(each.figures), unit + ratio.str());
    }
}

/// One blocking connection, with commands sent in batches.
class Bare {
public:
    explicit Bare(const RedisServer& server)
        : mContext(::redisConnectUnix(server.socket().c_str()), ::redisFree)
    {
    }

    void append(const std::vector<std::string>& command)
    {
        std::vector<const char*> words;
        std::vector<std::size_t> sizes;
        for (const std::string& word : command) {
            words.push_back(word.data());
            sizes.push_back(word.size());
        }
        ::redisAppendCommandArgv(
            mContext.get(), static_cast<int>(words.size()), words.data(), sizes.data());
    }

    using Reply = std::unique_ptr<redisReply, void (*)(void*)>;

    Reply take()
    {
        void* reply = nullptr;
        if (::redisGetReply(mContext.get(), &reply) != REDIS_OK)
            throw std::runtime_error(mContext->errstr);
        return {static_cast<redisReply*>(reply), ::freeReplyObject};
    }

    Reply ask(const std::vector<std::string>& command)
    {
        append(command);
        return take();
    }

private:
    std::unique_ptr<redisContext, void (*)(redisContext*)> mContext;
};

std::size_t entriesOf(const redisReply& reply)
{
    return reply.type == REDIS_REPLY_ARRAY ? reply.element[0]->element[1]->elements : 0;
}

const redisReply& entryOf(const redisReply& reply, std::size_t index)
{
    return *reply.element[0]->element[1]->element[index];
}

/// Reads jobs and answers each with as many bytes: one connection reads, one answers.
void serveBarely(const RedisServer& server, int jobs)
{
    Bare reader(server);
    Bare writer(server);
    for (int done = 0; done < jobs;) {
        const auto reply = reader.ask(
            {"XREADGROUP",
             "GROUP",
             "g",
             "me",
             "COUNT",
             std::to_string(pipelined),
             "BLOCK",
             "1000",
             "STREAMS",
             "jobs",
             ">"});
        const std::size_t count = entriesOf(*reply);
        for (std::size_t i = 0; i < count; ++i) {
            const redisReply& entry = entryOf(*reply, i);
            const std::string id(entry.element[0]->str, entry.element[0]->len);
            const redisReply& payload = *entry.element[1]->element[1];
            writer.append({"XACK", "jobs", "g", id});
            writer.append({"XDEL", "jobs", id});
            writer.append({"XADD", "out", "*", "b", std::string(payload.str, payload.len)});
        }
        for (std::size_t i = 0; i < 3 * count; ++i)
            writer.take();
        done += static_cast<int>(count);
    }
}

/// The same work with the commands alone: one connection adds, one reads the answers.
double bareJobsPerSecond(int jobs, std::size_t size)
{
    const RedisServer server;
    Bare adder(server);
    Bare reader(server);
    adder.ask({"XGROUP", "CREATE", "jobs", "g", "0", "MKSTREAM"});
    const pid_t child = ::fork();
    if (child == 0) {
        serveBarely(server, jobs);
        ::_exit(0);
    }
    const std::string payload(size, 'a');
    const auto start = Clock::now();
    int added = 0;
    std::string last = "0";
    const int ahead = size > 100'000 ? 8 : 4'096;
    for (int done = 0; done < jobs;) {
        int count = 0;
        for (; added < jobs && added - done < ahead && count < pipelined; ++added, ++count)
            adder.append({"XADD", "jobs", "*", "b", payload});
        for (int i = 0; i < count; ++i)
            adder.take();
        const auto reply =
            reader.ask({"XREAD", "COUNT", "1024", "BLOCK", "1000", "STREAMS", "out", last});
        std::vector<std::string> deleted{"XDEL", "out"};
        for (std::size_t i = 0; i < entriesOf(*reply); ++i) {
            const redisReply& id = *entryOf(*reply, i).element[0];
            last.assign(id.str, id.len);
            deleted.push_back(last);
        }
        if (deleted.size() > 2)
            adder.ask(deleted);
        done += static_cast<int>(deleted.size() - 2);
    }
    const double seconds = secondsSince(start);
    ::waitpid(child, nullptr, 0);
    return jobs / seconds;
}

std::unique_ptr<Program> startAgent(const RedisServer& server, const std::string& name)
{
    auto agent = std::make_unique<Program>(std::vector<std::string>{
        NQ_AGENT,
        "--redis",
        server.url(),
        "--queue",
        "bench",
        "--workers",
        "1",
        "--name",
        name,
        "--",
        NQ_CLUSTER_WORKER});
    if (!agent->says("takes jobs"))
        throw std::runtime_error(agent->printed());
    return agent;
}

double clusterJobsPerSecond(const RedisServer& server, int jobs, std::size_t size, int agents)
{
    std::vector<std::unique_ptr<Program>> programs;
    programs.reserve(static_cast<std::size_t>(agents));
    for (int i = 0; i < agents; ++i)
        programs.push_back(startAgent(server, "agent" + std::to_string(i)));
    nq::nqClusterPool pool(server.url(), "bench");
    const std::string payload = "echo " + std::string(size, 'a');
    const auto start = Clock::now();
    for (int i = 0; i < jobs; ++i) {
        pool.submit(payload, [](nq::nqOutcome&&) {});
        if (i % 1'000 == 0)
            pool.pump(std::chrono::milliseconds(0));
    }
    if (!pool.drain())
        throw std::runtime_error("a job was not done");
    return jobs / secondsSince(start);
}

double clusterJobsPerSecond(int jobs, std::size_t size, int agents)
{
    const RedisServer server;
    return clusterJobsPerSecond(server, jobs, size, agents);
}

/// Of a server, by its own account.
double processorSeconds(const RedisServer& server)
{
    const std::string answer = server.ask({"INFO", "cpu"});
    double seconds = 0;
    for (const std::string name : {"used_cpu_user:", "used_cpu_sys:"})
        seconds += std::stod(answer.substr(answer.find(name) + name.size()));
    return seconds;
}

void showProcessorTime(int jobs, std::size_t size)
{
    const RedisServer server;
    const double before = processorSeconds(server);
    clusterJobsPerSecond(server, jobs, size, 2);
    show(
        std::to_string(size) + " B, 2 agents, Redis's processor time",
        (processorSeconds(server) - before) / jobs * 1e6,
        "us a job");
}

/// What Redis does for one beat of an agent, with so many others that live.
void showBeats(int agents)
{
    constexpr int beats = 5'000;
    const RedisServer server;
    Bare redis(server);
    for (int i = 0; i < agents; ++i)
        redis.ask({"HSET", "nq:{bench}:agents", "host" + std::to_string(i), "10000 1 life"});
    const std::string script = redis.ask({"SCRIPT", "LOAD", textOf(nq::nqScript::Beat)})->str;
    const double before = processorSeconds(server);
    for (int i = 0; i < beats; ++i) {
        const std::string name = "host" + std::to_string(i % agents);
        std::vector<std::string> beat{"EVALSHA", script, "2", "nq:{bench}:agents"};
        beat.insert(
            beat.end(), {"nq:{bench}:agent:" + name, name, "10000 " + std::to_string(i) + " life"});
        beat.insert(beat.end(), {"60000", "0", "4", "host0", "host1", "host2", "host3"});
        beat.insert(beat.end(), {"workers", "8", "held", "8"});
        if (redis.ask(beat)->type == REDIS_REPLY_ERROR)
            throw std::runtime_error("a beat was refused");
        redis.ask({"INFO", "memory"});
    }
    show(
        std::to_string(agents) + " agents, Redis's processor time",
        (processorSeconds(server) - before) / beats * 1e6,
        "us a beat");
}

/// What the workers of one machine reach without a queue before them.
double poolJobsPerSecond(int jobs, std::size_t size)
{
    nq::nqPoolOptions options;
    options.worker = NQ_CLUSTER_WORKER;
    options.workers = 1;
    nq::nqPool pool(options);
    pool.start();
    const std::string payload = "echo " + std::string(size, 'a');
    const auto start = Clock::now();
    for (int i = 0; i < jobs; ++i)
        pool.submit(payload, [](nq::nqOutcome&&) {});
    pool.drain();
    return jobs / secondsSince(start);
}

/// Submits to a queue without agents, and shows what it costs to submit and to run with that many
/// jobs before.
void showGrowth(int queued)
{
    const RedisServer server;
    nq::nqClusterOptions options;
    options.maxPendingBytes = 0;
    nq::nqClusterPool pool(server.url(), "bench", {}, options);
    const std::string payload(64, 'a');
    const auto start = Clock::now();
    for (int i = 0; i < queued; ++i) {
        pool.submit(payload, [](nq::nqOutcome&&) {});
        if (i % 1'000 == 0)
            pool.pump(std::chrono::milliseconds(0));
    }
    while (server.ask({"XLEN", "nq:{bench}:jobs"}) != std::to_string(queued))
        pool.pump(std::chrono::milliseconds(10));
    const std::string name = std::to_string(queued) + " queued jobs of 64 B, ";
    show(name + "submit", secondsSince(start) / queued * 1e6, "us a job");
    show(
        name + "Redis's memory",
        std::stod(server.ask({"MEMORY", "USAGE", "nq:{bench}:jobs", "SAMPLES", "0"})) / queued,
        "B a job");
    const auto agent = startAgent(server, "agent");
    const auto running = Clock::now();
    const int measured = std::min(queued, 20'000);
    while (pool.statistics().done < static_cast<std::uint64_t>(measured))
        pool.pump(std::chrono::milliseconds(10));
    show(name + "run", secondsSince(running) / measured * 1e6, "us a job");
}

double bareMicroseconds(int times)
{
    const RedisServer server;
    Bare one(server);
    Bare two(server);
    one.ask({"XGROUP", "CREATE", "jobs", "g", "0", "MKSTREAM"});
    const auto start = Clock::now();
    std::string last = "0";
    for (int i = 0; i < times; ++i) {
        one.ask({"XADD", "jobs", "*", "b", "a"});
        const auto job =
            two.ask({"XREADGROUP", "GROUP", "g", "me", "COUNT", "1", "STREAMS", "jobs", ">"});
        const redisReply& id = *entryOf(*job, 0).element[0];
        two.append({"XACK", "jobs", "g", std::string(id.str, id.len)});
        two.append({"XDEL", "jobs", std::string(id.str, id.len)});
        two.append({"XADD", "out", "*", "b", "a"});
        for (int j = 0; j < 3; ++j)
            two.take();
        const auto out = one.ask({"XREAD", "STREAMS", "out", last});
        last.assign(entryOf(*out, 0).element[0]->str, entryOf(*out, 0).element[0]->len);
    }
    return secondsSince(start) / times * 1e6;
}

double clusterMicroseconds(int times)
{
    const RedisServer server;
    const auto agent = startAgent(server, "agent");
    nq::nqClusterPool pool(server.url(), "bench");
    pool.submit("echo");
    pool.next();
    const auto start = Clock::now();
    for (int i = 0; i < times; ++i) {
        pool.submit("echo");
        pool.next();
    }
    return secondsSince(start) / times * 1e6;
}

} // namespace

int main(int argc, char* argv[])
try {
    const int jobs = argc > 1 ? std::atoi(argv[1]) : 50'000;
    compare(
        "64 B",
        "jobs/s",
        {{"bare commands", [=] { return bareJobsPerSecond(jobs, 64); }, {}, {}},
         {"nqPool with one worker", [=] { return poolJobsPerSecond(jobs, 64); }, {}, {}},
         {"cluster, 1 agent with one worker",
          [=] { return clusterJobsPerSecond(jobs, 64, 1); },
          {},
          {}},
         {"cluster, 2 agents", [=] { return clusterJobsPerSecond(jobs, 64, 2); }, {}, {}},
         {"cluster, 4 agents", [=] { return clusterJobsPerSecond(jobs, 64, 4); }, {}, {}}});
    const int large = std::max(jobs / 100, 10);
    compare(
        "1 MiB",
        "jobs/s",
        {{"bare commands", [=] { return bareJobsPerSecond(large, 1U << 20); }, {}, {}},
         {"nqPool with one worker", [=] { return poolJobsPerSecond(large, 1U << 20); }, {}, {}},
         {"cluster, 1 agent with one worker",
          [=] { return clusterJobsPerSecond(large, 1U << 20, 1); },
          {},
          {}}});
    const int times = std::max(jobs / 50, 10);
    compare(
        "one job at a time",
        "us",
        {{"bare round trips", [=] { return bareMicroseconds(times); }, {}, {}},
         {"cluster", [=] { return clusterMicroseconds(times); }, {}, {}}});
    showProcessorTime(jobs, 64);
    showProcessorTime(large, 1U << 20);
    for (const int agents : {10, 100, 1'000})
        showBeats(agents);
    for (int queued = 1'000; queued <= 20 * jobs; queued *= 10)
        showGrowth(queued);
    return 0;
} catch (const std::exception& error) {
    std::cerr << "cluster_bench: " << error.what() << '\n';
    return 1;
}
