#pragma once

#include "pool/include/nqPoolOptions.h"
#include "pool/include/nqPoolWorker.h"

#include <string>
#include <vector>

namespace nq {

class nqOwnExecutable;

/// Which program the workers of a pool run, and with which arguments.
class nqWorkerProgram {
public:
    /// Throws nqPoolError with the cause and what to do, when it cannot work as the options say.
    explicit nqWorkerProgram(const nqPoolOptions& options);

    /// Whether the worker and the pool talk in nqEnvelope's way.
    bool isEnveloped() const;

    /// For nqEnvelope; empty for one that is not enveloped.
    const std::string& tag() const;

    /// For the next launch, absolute. May change from one to the next.
    std::string path() const;

    /// The name of the pipe goes behind them.
    std::vector<std::string> arguments() const;

    /// That of runAsWorker(), for nqPoolOptions::inProcess. Throws nqPoolError when it never ran.
    nqMakeWork ownWork() const;

private:
    const nqOwnExecutable* mOwn = nullptr; // null: another program
    std::string mPath;                     // of another program
    std::vector<std::string> mArguments;
    std::string mTag;
};

} // namespace nq
