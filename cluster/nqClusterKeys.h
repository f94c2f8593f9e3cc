#pragma once

#include <string>

namespace nq {

/// The names of a queue's keys. They share a hash tag, so that a server of many shards keeps them
/// together.
struct nqClusterKeys {
    explicit nqClusterKeys(const std::string& queue)
        : prefix("nq:{" + queue + "}:"),
          jobs(prefix + "jobs"),
          agents(prefix + "agents"),
          runs(prefix + "runs")
    {
    }

    std::string client(const std::string& name) const
    {
        return prefix + "client:" + name;
    }

    std::string outcomes(const std::string& client) const
    {
        return prefix + "out:" + client;
    }

    std::string agent(const std::string& name) const
    {
        return prefix + "agent:" + name;
    }

    std::string orders(const std::string& agent) const
    {
        return prefix + "orders:" + agent;
    }

    std::string prefix;
    std::string jobs;   ///< a stream, whose group "agents" shares it out
    std::string agents; ///< a hash of the agents that are there
    std::string runs;   ///< a hash: how many programs have submitted
};

} // namespace nq
