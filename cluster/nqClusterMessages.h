#pragma once

#include "cluster/nqRedisReply.h"
#include "pool/include/nqPool.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace nq {

/// The version of the messages that this library writes, and the newest that it reads.
constexpr std::uint64_t nqMessageVersion = 1;

/// Bytes of one job or one result that a queue carries at most.
constexpr std::size_t nqLargestPayload = std::size_t{64} << 20;

/// An entry of the stream of jobs, as an agent reads it. The views are the reply's.
struct nqJobMessage {
    static nqJobMessage of(const nqRedisReply& entry);

    std::string entry;
    std::uint64_t version = 0;
    std::string client;
    std::string id;
    std::string attempt;
    std::chrono::milliseconds timeout{0}; ///< 0: as the agent says
    std::string_view bytes;
    bool isReadable = false; ///< otherwise it is no job
};

/// An entry of a client's stream of outcomes, as a submitter reads it.
struct nqOutcomeMessage {
    static nqOutcomeMessage of(const nqRedisReply& entry);

    std::string entry;
    std::uint64_t version = 0;
    std::uint64_t attempt = 0;
    nqOutcome outcome;
    bool isReadable = false; ///< otherwise it is no outcome
};

/// The fields and values of an outcome, its result aside.
std::vector<std::pair<std::string_view, std::string>>
fieldsOf(const nqOutcome& outcome, const std::string& id, const std::string& attempt);

/// "crashed"; in messages and in what people read.
std::string_view nameOf(nqAttempt::Reason reason);

} // namespace nq
