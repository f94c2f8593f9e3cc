#include "cluster/nqClusterMessages.h"

#include <algorithm>
#include <array>

namespace nq {

namespace {

using Reason = nqAttempt::Reason;
using State = nqOutcome::State;

constexpr std::array<std::string_view, nqPoolStatistics::reasons> reasonNames{
    "none",
    "crashed",
    "exited",
    "memory-cap",
    "timeout",
    "deadline",
    "exception",
    "result-lost",
    "no-worker",
    "cancelled",
    "stopped",
    "lost"};

constexpr std::array<std::string_view, 3> stateNames{"done", "failed", "cancelled"};

/// The value that `name` stands for; those of newer programs count as `otherwise`.
template <typename Value, std::size_t size>
Value valueOf(
    const std::array<std::string_view, size>& names, std::string_view name, Value otherwise)
{
    const auto* const found = std::find(names.begin(), names.end(), name);
    return found == names.end() ? otherwise : static_cast<Value>(found - names.begin());
}

std::optional<int> optionalNumber(const nqRedisReply& value)
{
    if (value.isNothing())
        return std::nullopt;
    return static_cast<int>(value.number());
}

} // namespace

nqJobMessage nqJobMessage::of(const nqRedisReply& entry)
{
    const nqRedisReply fields = entry[1];
    nqJobMessage job;
    job.entry = entry[0].text();
    job.version = fields.find("v").number();
    job.client = fields.find("client").text();
    job.id = fields.find("id").text();
    job.attempt = fields.find("attempt").text();
    job.timeout = std::chrono::milliseconds(fields.find("timeout").number());
    job.bytes = fields.find("job").text();
    job.isReadable = job.version != 0 && !job.client.empty() && !job.id.empty() &&
                     !fields.find("job").isNothing();
    return job;
}

nqOutcomeMessage nqOutcomeMessage::of(const nqRedisReply& entry)
{
    const nqRedisReply fields = entry[1];
    nqOutcomeMessage message;
    message.entry = entry[0].text();
    message.version = fields.find("v").number();
    message.attempt = fields.find("attempt").number();
    nqOutcome& outcome = message.outcome;
    outcome.id = fields.find("id").number();
    outcome.state = valueOf(stateNames, fields.find("state").text(), State::Failed);
    if (outcome.state != State::Done)
        outcome.reason = valueOf(reasonNames, fields.find("reason").text(), Reason::Exited);
    outcome.toldByWorker = fields.find("told").number() != 0;
    outcome.message = fields.find("message").text();
    outcome.pid = static_cast<std::int64_t>(fields.find("pid").number());
    outcome.exitStatus = optionalNumber(fields.find("status"));
    outcome.signal = optionalNumber(fields.find("signal"));
    outcome.dumpedCore = fields.find("core").number() != 0;
    if (const nqRedisReply peak = fields.find("peak"); !peak.isNothing())
        outcome.peakMemory = peak.number();
    outcome.ran = std::chrono::microseconds(fields.find("ran").number());
    outcome.lastWords = fields.find("words").text();
    const std::string_view bytes = fields.find("bytes").text();
    outcome.bytes.assign(bytes.begin(), bytes.end());
    message.isReadable = message.version != 0 && outcome.id != 0 && message.attempt != 0;
    return message;
}

std::vector<std::pair<std::string_view, std::string>>
fieldsOf(const nqOutcome& outcome, const std::string& id, const std::string& attempt)
{
    std::vector<std::pair<std::string_view, std::string>> fields{
        {"v", std::to_string(nqMessageVersion)},
        {"id", id},
        {"attempt", attempt},
        {"state", std::string(stateNames[static_cast<std::size_t>(outcome.state)])},
        {"ran", std::to_string(outcome.ran.count())}};
    const auto add = [&fields](std::string_view name, std::string value) {
        fields.emplace_back(name, std::move(value));
    };
    if (outcome.pid != 0)
        add("pid", std::to_string(outcome.pid));
    if (outcome.state == State::Done)
        return fields;
    add("reason", std::string(nameOf(outcome.reason)));
    if (outcome.toldByWorker)
        add("told", "1");
    if (!outcome.message.empty())
        add("message", outcome.message);
    if (outcome.exitStatus)
        add("status", std::to_string(*outcome.exitStatus));
    if (outcome.signal)
        add("signal", std::to_string(*outcome.signal));
    if (outcome.dumpedCore)
        add("core", "1");
    if (outcome.peakMemory)
        add("peak", std::to_string(*outcome.peakMemory));
    if (!outcome.lastWords.empty())
        add("words", outcome.lastWords);
    return fields;
}

std::string_view nameOf(Reason reason)
{
    return reasonNames[static_cast<std::size_t>(reason)];
}

} // namespace nq
