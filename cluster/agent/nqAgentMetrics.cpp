#include "cluster/agent/nqAgentMetrics.h"

#include <cstdio>
#include <fstream>
#include <utility>

namespace nq {

namespace {

constexpr std::chrono::seconds interval{1};

} // namespace

nqAgentMetrics::nqAgentMetrics(std::string path, const std::string& queue, const std::string& agent)
    : mPath(std::move(path)),
      mLabels("{queue=\"" + queue + "\",agent=\"" + agent + "\"}")
{
}

bool nqAgentMetrics::write(const nqAgentCounts& counts, nqClusterClock::time_point now)
{
    if (mPath.empty() || now < mNext)
        return true;
    mNext = now + interval;
    const std::string fresh = mPath + ".new";
    std::ofstream file(fresh, std::ios::trunc);
    const auto line = [&](const char* name, const char* kind, const char* help, auto value) {
        file << "# HELP nq_agent_" << name << ' ' << help << "\n# TYPE nq_agent_" << name << ' '
             << kind << "\nnq_agent_" << name << mLabels << ' ' << value << '\n';
    };
    line("jobs_done_total", "counter", "Jobs that gave a result.", counts.done);
    line("jobs_failed_total", "counter", "Attempts that failed.", counts.failed);
    line("jobs_handed_back_total", "counter", "Jobs left to other agents.", counts.handedBack);
    line(
        "outcomes_dropped_total",
        "counter",
        "Outcomes that nobody waited for any more.",
        counts.dropped);
    line("leases_lost_total", "counter", "Times that others took its jobs.", counts.leasesLost);
    line("connections_lost_total", "counter", "Connections with Redis.", counts.connectionsLost);
    line("jobs_held", "gauge", "Jobs that it has taken.", counts.held);
    line("jobs_running", "gauge", "Those of them that workers hold.", counts.running);
    line("workers", "gauge", "Worker processes at most.", counts.workers);
    file.close();
    return file && std::rename(fresh.c_str(), mPath.c_str()) == 0;
}

} // namespace nq
