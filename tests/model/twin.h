#pragma once

#include "tests/common/random.h"
#include "tests/model/workerModel.h"
#include "tests/scripted/scriptedMachine.h"

#include <memory>
#include <string>
#include <vector>

namespace model {

using common::Random;

/// What the workers' ends of the pipes send.
enum class Peers {
    framing, ///< whole frames, however they are cut
    hostile  ///< anything as well
};

/// The scripted machine under the library and the world under the model, kept alike: every event
/// happens to both, and whatever differs afterwards was done by the library or by the model.
class Twin {
public:
    /// Settles by chance what this round is like.
    explicit Twin(Random& random, Peers peers = Peers::framing);
    Twin(const Twin&) = delete;
    Twin& operator=(const Twin&) = delete;

    scripted::Machine machine;
    World world;

    const Limits& limits() const;

    /// One thing that happens on the platform.
    void randomEvent();
    /// Outcomes of coming launches.
    void randomLaunches();
    /// What happens during the next sleep, if there is one.
    void randomSleep();
    void endSleep();
    /// A job that says little; empty only when `mayBeEmpty`.
    Bytes randomJob(bool mayBeEmpty);

    /// From now on every worker answers or is lost after a few steps, and every launch works, so
    /// that `jobs` jobs come to an end.
    void letEverythingEnd(std::size_t jobs);
    void endThat();

    /// Plans processes and pipes until `count` of each are ahead.
    void planAhead(std::size_t count);

    /// What the two did differently since the last call; empty when nothing.
    std::string difference();

private:
    /// One record on both sides.
    struct PipePair {
        scripted::Pipe* real;
        std::shared_ptr<scripted::Pipe> modelled;
        Bytes backlog; ///< what its peer has yet to send
    };
    struct ProcessPair {
        scripted::Process* real;
        std::shared_ptr<scripted::Process> modelled;
    };

    template <typename Act>
    void toBoth(const Act& act);
    /// To a pipe or a process that is in use; does nothing when there is none.
    template <typename Act>
    void toPipe(const Act& act);
    template <typename Act>
    void toProcess(const Act& act);

    void planProcess();
    void planPipe();
    std::uint64_t randomRam();
    std::uint64_t randomSeconds();
    std::uint64_t randomLimit();
    std::uint64_t randomFlow();
    Bytes nextFrame();
    std::uint32_t hostileLength();
    Bytes nextPiece(Bytes& backlog);
    void bytesArrive();
    void somethingEnds();
    void takeStock();
    std::string differenceOfRecords();

    Random& mRandom;
    Peers mPeers;
    Limits mLimits;
    std::uint64_t mUsualOutgoingLimit;
    std::uint64_t mFailedLaunchPercent;
    std::vector<PipePair> mPipes; ///< in the order of planning, which is the order of use
    std::vector<ProcessPair> mProcesses;
    std::vector<std::size_t> mUsedPipes; ///< indices of what is in use now
    std::vector<std::size_t> mUsedProcesses;
    std::size_t mTakenPipes = 0;
    std::size_t mTakenProcesses = 0;
};

} // namespace model
