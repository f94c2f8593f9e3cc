#include "cluster/agent/nqAgentStatus.h"

#include "cluster/nqClusterKeys.h"
#include "cluster/nqClusterNames.h"
#include "cluster/nqClusterWait.h"
#include "cluster/nqRedisLink.h"
#include "pool/include/nqPool.h"

#include <algorithm>
#include <chrono>
#include <iomanip>
#include <iostream>
#include <string>
#include <vector>

namespace nq {

namespace {

constexpr std::uint64_t lookedAt = 100'000; // jobs in flight; more are not worth the time

/// Asks one thing after the other.
class Inquiry final : private nqRedisLinkOwner {
public:
    explicit Inquiry(const nqRedisLink::Settings& settings)
        : mLink(settings, mWait, *this)
    {
        waitUntil([this] { return mLink.isReady(); });
    }

    /// Hands the reply to `look`.
    void ask(nqRedisCommand&& command, const nqRedisLink::OnReply& look)
    {
        bool isAnswered = false;
        mLink.send(std::move(command), [&](const nqRedisReply& reply) {
            look(reply);
            isAnswered = true;
        });
        waitUntil([&] { return isAnswered; });
    }

private:
    void onReady(nqRedisLink&) override {}
    void onDown(nqRedisLink&) override {}

    template <typename Condition>
    void waitUntil(Condition isMet)
    {
        while (!isMet()) {
            mLink.step();
            mLink.flush();
            if (!mLink.problem().empty())
                throw nqPoolError(mLink.problem());
            const auto left =
                mLink.nextDue().value_or(nqClusterClock::now()) - nqClusterClock::now();
            mWait.sleep(std::max(
                std::chrono::ceil<std::chrono::milliseconds>(left), std::chrono::milliseconds(1)));
        }
    }

    nqClusterWait mWait;
    nqRedisLink mLink;
};

struct Row {
    std::string name;
    std::string host;
    std::string workers;
    std::string running;
    std::string held;
    std::string done;
    std::string failed;
    std::string rate;
    std::string problem;
};

void print(const Row& row)
{
    std::cout << std::left << std::setw(34) << row.name << ' ' << std::setw(16) << row.host
              << std::right << std::setw(8) << row.workers << std::setw(8) << row.running
              << std::setw(8) << row.held << std::setw(12) << row.done << std::setw(10)
              << row.failed << std::setw(9) << row.rate
              << (row.problem.empty() ? "" : "  " + row.problem) << '\n';
}

Row rowOf(const std::string& name, const nqRedisReply& reply)
{
    const auto value = [&reply](const char* key) { return std::string(reply.find(key).text()); };
    return {
        name,
        value("host"),
        value("workers"),
        value("running"),
        value("held"),
        value("done"),
        value("failed"),
        value("rate"),
        value("problem")};
}

} // namespace

void printStatus(const nqAgentOptions& options)
{
    const nqClusterKeys keys(requireName(options.queue, "queue"));
    nqRedisLink::Settings settings;
    settings.address = nqRedisAddress::parse(options.redis, options.passwordFile);
    Inquiry inquiry(settings);

    std::uint64_t inQueue = 0;
    std::uint64_t taken = 0;
    std::uint64_t oldest = 0;
    inquiry.ask({"XLEN", keys.jobs}, [&](const nqRedisReply& reply) { inQueue = reply.number(); });
    nqRedisCommand pending{"XPENDING", keys.jobs, "agents", "-", "+"};
    inquiry.ask(std::move(pending.add(lookedAt)), [&](const nqRedisReply& reply) {
        taken = reply.size();
        for (std::size_t i = 0; i < reply.size(); ++i)
            oldest = std::max(oldest, reply[i][2].number());
    });
    std::cout << "queue " << options.queue << ": " << (inQueue > taken ? inQueue - taken : 0)
              << " jobs wait, " << taken << " are with agents";
    if (taken != 0)
        std::cout << ", the oldest of them for " << oldest / 1000 << '.' << oldest / 100 % 10
                  << " s";
    std::cout << '\n';

    std::vector<std::string> names;
    inquiry.ask({"HGETALL", keys.agents}, [&](const nqRedisReply& reply) {
        for (std::size_t i = 0; i + 1 < reply.size(); i += 2)
            names.emplace_back(reply[i].text());
    });
    std::sort(names.begin(), names.end());
    if (names.empty()) {
        std::cout << "no agent is there\n";
        return;
    }
    print({"agent", "host", "workers", "running", "held", "done", "failed", "per s", ""});
    for (const std::string& name : names)
        inquiry.ask({"HGETALL", keys.agent(name)}, [&](const nqRedisReply& reply) {
            print(rowOf(name, reply));
        });
}

} // namespace nq
