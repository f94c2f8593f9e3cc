#include "cluster/nqClusterScripts.h"

#include <array>

// All keys of a queue share its hash tag, so that scripts may make their names from the prefix.
// They run without memory too, since they only move or end what is there already: otherwise a full
// server could never become emptier. What is new comes before them, in the same transaction.

namespace nq {

namespace {

// Who writes a job need not keep to an order of its fields.
constexpr std::string_view fieldFunction = R"(local function field(fields, name)
    for i = 1, #fields, 2 do
        if fields[i] == name then return fields[i + 1] end
    end
    return ''
end
)";

// Whoever makes the queue's group, because the stream of jobs is new, leaves a word: clients that
// know another one have jobs in a stream that was deleted.
constexpr std::string_view makeGroupFunction = R"(local function makeGroup(runs, word)
    if not redis.pcall('XGROUP', 'CREATE', KEYS[1], 'agents', '0', 'MKSTREAM').err then
        redis.call('HSET', runs, 'stream', word)
    end
end
)";

constexpr std::string_view isAnotherStreamFunction = R"(
local function isAnotherStream(known, runs)
    local word = known and redis.call('HGET', runs, 'stream')
    return word and word ~= known
end
)";

// A submitter arrives: from now on nobody else has its name. Runs are counted for the whole queue,
// by a key that never expires: ids of jobs that outlive what is known of their client stay its own.
// Who comes back with its run, after its connection was lost, gives way to a later one.
constexpr std::string_view open = R"(
-- KEYS: jobs, client, outcomes, runs. ARGV: session, how long outcomes are kept, '0' for a new
--   program, otherwise its run
local run = tonumber(ARGV[3])
if run == 0 then
    run = redis.call('HINCRBY', KEYS[4], 'count', 1)
else
    if tonumber(redis.call('HGET', KEYS[2], 'run') or '0') > run then
        return redis.error_reply('NQTAKEN the client has another session')
    end
    local count = redis.call('HGET', KEYS[4], 'count')
    if tonumber(count or '0') < run then redis.call('HSET', KEYS[4], 'count', run) end
end
makeGroup(KEYS[4], ARGV[1])
if isAnotherStream(redis.call('HGET', KEYS[2], 'stream'), KEYS[4]) then
    redis.call('HDEL', KEYS[2], 'last', 'open')
end
redis.call('HSET', KEYS[2], 'session', ARGV[1], 'expiry', ARGV[2], 'run', run,
    'stream', redis.call('HGET', KEYS[4], 'stream') or '')
redis.call('PEXPIRE', KEYS[2], ARGV[2])
redis.call('PEXPIRE', KEYS[3], ARGV[2])
local had = redis.call('HMGET', KEYS[2], 'last', 'open')
return {had[1] or '0', run, had[2] or '0', redis.call('XLEN', KEYS[3])}
)";

// The jobs that were added before this, in the same transaction, are accepted, or taken out again.
// They have to follow those accepted before. They are no arguments: Lua would copy each several
// times.
constexpr std::string_view accept = R"(
-- KEYS: jobs, client, runs. ARGV: session, number of the last job before, of the last one of these,
--   how many there are
local had = redis.call('HMGET', KEYS[2], 'session', 'last', 'stream', 'batch')
if had[4] ~= ARGV[3] then return redis.error_reply('NQALONE there was no transaction') end
redis.call('HDEL', KEYS[2], 'batch')
local refusal
if not had[1] then
    refusal = 'NQGONE the client is not known'
elseif redis.call('EXISTS', KEYS[1]) == 0 or isAnotherStream(had[3], KEYS[3]) then
    refusal = 'NQGONE the jobs were deleted'
elseif had[1] ~= ARGV[1] then
    refusal = 'NQTAKEN the client has another session'
elseif (had[2] or '0') ~= ARGV[2] then
    refusal = 'NQGAP jobs before are missing'
end
if refusal then
    for _, each in ipairs(redis.call('XREVRANGE', KEYS[1], '+', '-', 'COUNT', ARGV[4])) do
        redis.call('XDEL', KEYS[1], each[1])
    end
    return redis.error_reply(refusal)
end
redis.call('HSET', KEYS[2], 'last', ARGV[3])
return redis.call('HINCRBY', KEYS[2], 'open', ARGV[4])
)";

constexpr std::string_view watch = R"(
-- KEYS: client, outcomes, agents, jobs, runs. ARGV: session, how long outcomes are kept
local had = redis.call('HMGET', KEYS[1], 'session', 'stream')
if not had[1] then return redis.error_reply('NQGONE the client is not known') end
if had[1] ~= ARGV[1] then return redis.error_reply('NQTAKEN the client has another session') end
if redis.call('EXISTS', KEYS[4]) == 0 or isAnotherStream(had[2], KEYS[5]) then
    return redis.error_reply('NQGONE the jobs were deleted')
end
redis.call('PEXPIRE', KEYS[1], ARGV[2])
redis.call('PEXPIRE', KEYS[2], ARGV[2])
return redis.call('HGETALL', KEYS[3])
)";

// Takes a job out of the cluster, whether it waits or runs. That it was cancelled may be its
// outcome, which then arrives as any other; somebody who has given up the job wants none. An empty
// entry: looks for it, some entries in each call, and says where to look on. One that is not there
// is looked for only where that is told.
constexpr std::string_view withdraw = R"(
-- KEYS: jobs, client. ARGV: prefix, client, id, attempt, entry or '', where to look,
--   '1' to have an outcome, how long outcomes are kept, '1' to leave it to an agent that has it
local entry, after = ARGV[5], ''
if entry == '' then
    after = ARGV[6]
    local seen, bytes = 0, 0
    while entry == '' and after ~= '' and seen < 1000 and bytes < 1000000 do
        local each = redis.call('XRANGE', KEYS[1], after, '+', 'COUNT', 1)[1]
        if not each then
            after = ''
        elseif field(each[2], 'client') == ARGV[2] and field(each[2], 'id') == ARGV[3] then
            entry = each[1]
        else
            after = '(' .. each[1]
            seen, bytes = seen + 1, bytes + #field(each[2], 'job')
        end
    end
end
if entry == '' then return {0, after} end
local owner = redis.call('XPENDING', KEYS[1], 'agents', entry, entry, 1)
if owner[1] and ARGV[9] == '1' then return {2, ''} end
if redis.call('XDEL', KEYS[1], entry) == 0 then return {0, ARGV[5] ~= '' and ARGV[6] or ''} end
if redis.call('EXISTS', KEYS[2]) == 1 then redis.call('HINCRBY', KEYS[2], 'open', -1) end
if owner[1] then
    redis.call('XACK', KEYS[1], 'agents', entry)
    local orders = ARGV[1] .. 'orders:' .. owner[1][2]
    redis.call('XADD', orders, 'MAXLEN', '~', '10000', '*', 'cancel', entry)
    redis.call('PEXPIRE', orders, 3600000)
end
if ARGV[7] == '1' then
    local out = ARGV[1] .. 'out:' .. ARGV[2]
    redis.call('XADD', out, '*', 'v', '1', 'id', ARGV[3], 'attempt', ARGV[4],
        'state', 'cancelled', 'reason', 'cancelled')
    redis.call('PEXPIRE', out, ARGV[8])
end
return {1, ''}
)";

// The host has these outcomes. Not of a program whose name another one has: that one counts on
// them.
constexpr std::string_view taken = R"(
-- KEYS: client, outcomes. ARGV: session, entries
if redis.call('HGET', KEYS[1], 'session') ~= ARGV[1] then
    return redis.error_reply('NQTAKEN the client has another session')
end
return redis.call('XDEL', KEYS[2], unpack(ARGV, 2))
)";

// What an agent of the same name has held, which was killed and started again, is lost: handed
// back, it would not count as an attempt, and a job that kills its agent would go on for ever.
constexpr std::string_view join = R"(
-- KEYS: jobs, agents, runs. ARGV: prefix, agent, its value, a word for a new stream
makeGroup(KEYS[3], ARGV[4])
if redis.call('HEXISTS', KEYS[2], ARGV[2]) == 1 then
    lose(ARGV[2], 'agent ' .. ARGV[2] .. ' was lost, and is started anew')
end
redis.call('HSET', KEYS[2], ARGV[2], ARGV[3])
return 1
)";

// An agent lives, and looks at others. If each looked at all, the cost would grow with the square
// of their number; so among many it is told of a few at random, and again of those that it asks
// for. Its value ends with a word of its own: with a later one of its name, it would hand back what
// the other runs, and the other what it runs, without an end.
constexpr std::string_view beat = R"(
-- KEYS: agents, agent. ARGV: agent, its value, how long its description is kept, '1' to be told of
--   all, how many others it asks for, these, then the description
local function life(value) return value and string.match(value, '%S*$') end
if life(redis.call('HGET', KEYS[1], ARGV[1])) ~= life(ARGV[2]) then
    return redis.error_reply('NQLOST the agent was taken for lost')
end
redis.call('HSET', KEYS[1], ARGV[1], ARGV[2])
local asked = 5 + tonumber(ARGV[5])
if #ARGV > asked then redis.call('HSET', KEYS[2], unpack(ARGV, asked + 1)) end
redis.call('PEXPIRE', KEYS[2], ARGV[3])
local count = redis.call('HLEN', KEYS[1])
if ARGV[4] == '1' or count <= 32 then return {count, redis.call('HGETALL', KEYS[1])} end
local some = redis.call('HRANDFIELD', KEYS[1], 4, 'WITHVALUES')
for i = 6, asked do
    local value = redis.call('HGET', KEYS[1], ARGV[i])
    if value then
        some[#some + 1] = ARGV[i]
        some[#some + 1] = value
    end
end
return {count, some}
)";

// Jobs have ended: each leaves the queue and its outcome arrives, unless somebody was faster. An
// entry is in the queue for as long as it is its agent's. Outcomes that were added before this, in
// the same transaction, which begins as that of accepted jobs, stay or are taken out again.
constexpr std::string_view finish = R"(
-- KEYS: jobs, agents, agent. ARGV: prefix, agent, how many jobs, their entries, then of each: client, where
--   its outcome is ('added': there; 'given': here; 'failed': here, but for the job's own bytes), how
--   many arguments follow, fields and values of the outcome
local count = tonumber(ARGV[3])
local known = redis.call('HEXISTS', KEYS[2], ARGV[2]) == 1
local function entry(job) return ARGV[3 + job] end
local function outcomes(client) return ARGV[1] .. 'out:' .. client end

local added, rest, i = {}, {}, 4 + count
for job = 1, count do
    local client, where, size = ARGV[i], ARGV[i + 1], tonumber(ARGV[i + 2])
    if where == 'added' then
        added[client] = added[client] or {}
        table.insert(added[client], job)
    else
        local has = where == 'failed' and redis.call('XRANGE', KEYS[1], entry(job), entry(job))[1]
        rest[#rest + 1] = {job, client, {unpack(ARGV, i + 3, i + 2 + size)}, has and field(has[2], 'job')}
    end
    i = i + 3 + size
end

if next(added) then
    if redis.call('HGET', KEYS[3], 'batch') ~= entry(1) then
        return redis.error_reply('NQALONE there was no transaction')
    end
    redis.call('HDEL', KEYS[3], 'batch')
end

local taken, all = {}, known
if known then
    all = redis.call('XACK', KEYS[1], 'agents', unpack(ARGV, 4, 3 + count)) == count
    if all then
        redis.call('XDEL', KEYS[1], unpack(ARGV, 4, 3 + count))
    else
        for job = 1, count do taken[job] = redis.call('XDEL', KEYS[1], entry(job)) end
    end
end

local counts = {}
for client, jobs in pairs(added) do
    counts[client] = #jobs
    if not all then
        local latest = redis.call('XREVRANGE', outcomes(client), '+', '-', 'COUNT', #jobs)
        for at, job in ipairs(jobs) do
            if taken[job] ~= 1 then
                redis.call('XDEL', outcomes(client), latest[#jobs + 1 - at][1])
                counts[client] = counts[client] - 1
            end
        end
    end
end
for _, each in ipairs(rest) do
    local job, client, fields, bytes = unpack(each, 1, 4)
    if all or taken[job] == 1 then
        if bytes then
            fields[#fields + 1] = 'bytes'
            fields[#fields + 1] = bytes
        end
        redis.call('XADD', outcomes(client), '*', unpack(fields))
        counts[client] = (counts[client] or 0) + 1
    end
end
for client, ended in pairs(counts) do
    local about = ARGV[1] .. 'client:' .. client
    local expiry = redis.call('HGET', about, 'expiry')
    if expiry and ended > 0 then redis.call('HINCRBY', about, 'open', -ended) end
    redis.call('PEXPIRE', outcomes(client), expiry or 86400000)
end
if not known then return redis.error_reply('NQLOST the agent was taken for lost') end
return all and {} or taken
)";

// Jobs that an agent holds wait again, behind the others; as if it had never had them.
constexpr std::string_view handBack = R"(
-- KEYS: jobs, agents. ARGV: agent, entries
if redis.call('HEXISTS', KEYS[2], ARGV[1]) == 0 then
    return redis.error_reply('NQLOST the agent was taken for lost')
end
local count = 0
for i = 2, #ARGV do
    local job = redis.call('XRANGE', KEYS[1], ARGV[i], ARGV[i])[1]
    if redis.call('XACK', KEYS[1], 'agents', ARGV[i]) == 1 and job then
        redis.call('XDEL', KEYS[1], ARGV[i])
        redis.call('XADD', KEYS[1], '*', unpack(job[2]))
        count = count + 1
    end
end
return count
)";

// Lets what a consumer holds wait again, behind the others, as if it had never had it.
constexpr std::string_view giveBackFunction = R"(
local function giveBack(agent)
    local count = 0
    repeat
        local held = redis.call('XPENDING', KEYS[1], 'agents', '-', '+', 100, agent)
        for _, each in ipairs(held) do
            local job = redis.call('XRANGE', KEYS[1], each[1], each[1])[1]
            redis.call('XACK', KEYS[1], 'agents', each[1])
            if job then
                redis.call('XDEL', KEYS[1], each[1])
                redis.call('XADD', KEYS[1], '*', unpack(job[2]))
                count = count + 1
            end
        end
    until #held == 0
    redis.call('XGROUP', 'DELCONSUMER', KEYS[1], 'agents', agent)
    return count
end
)";

// An agent goes.
constexpr std::string_view leave = R"(
-- KEYS: jobs, agents, agent, orders. ARGV: agent
if redis.call('HDEL', KEYS[2], ARGV[1]) == 0 then return 0 end
redis.call('DEL', KEYS[3], KEYS[4])
return giveBack(ARGV[1])
)";

// The stream of jobs was deleted, with its group.
constexpr std::string_view restore = R"(
-- KEYS: jobs, runs. ARGV: a word for a new stream
makeGroup(KEYS[2], ARGV[1])
return 1
)";

// Ends the jobs of a lost agent.
constexpr std::string_view loseFunction = R"(local function lose(agent, message)
    local count = 0
    repeat
        local held = redis.call('XPENDING', KEYS[1], 'agents', '-', '+', 100, agent)
        for _, each in ipairs(held) do
            local job = redis.call('XRANGE', KEYS[1], each[1], each[1])[1]
            redis.call('XACK', KEYS[1], 'agents', each[1])
            if job then
                redis.call('XDEL', KEYS[1], each[1])
                local client = field(job[2], 'client')
                redis.call('XADD', ARGV[1] .. 'out:' .. client, '*', 'v', '1', 'id',
                    field(job[2], 'id'), 'attempt', field(job[2], 'attempt'), 'state', 'failed', 'agent', agent, 'reason', 'lost',
                    'message', message, 'bytes', field(job[2], 'job'))
                local known = ARGV[1] .. 'client:' .. client
                local expiry = redis.call('HGET', known, 'expiry')
                if expiry then redis.call('HINCRBY', known, 'open', -1) end
                redis.call('PEXPIRE', ARGV[1] .. 'out:' .. client, expiry or 86400000)
                count = count + 1
            end
        end
    until #held == 0
    redis.call('XGROUP', 'DELCONSUMER', KEYS[1], 'agents', agent)
    redis.call('DEL', ARGV[1] .. 'agent:' .. agent, ARGV[1] .. 'orders:' .. agent)
    return count
end
)";

// An agent whose value has not changed for as long as it should have: whoever sees it first ends
// its jobs.
constexpr std::string_view lose = R"(
-- KEYS: jobs, agents. ARGV: prefix, agent, the value that was seen, message
if redis.call('HGET', KEYS[2], ARGV[2]) ~= ARGV[3] then return -1 end
redis.call('HDEL', KEYS[2], ARGV[2])
return lose(ARGV[2], ARGV[4])
)";

// What was given to an agent that had been taken for lost, and does not know it yet.
constexpr std::string_view sweep = R"(
-- KEYS: jobs, agents. ARGV: prefix
local count = 0
if redis.call('EXISTS', KEYS[1]) == 0 then return 0 end
local ok = redis.pcall('XINFO', 'CONSUMERS', KEYS[1], 'agents')
if ok.err then return 0 end
for _, each in ipairs(ok) do
    if redis.call('HEXISTS', KEYS[2], each[2]) == 0 then
        count = count + giveBack(each[2])
    end
end
return count
)";

struct Script {
    std::string_view body;
    std::array<std::string_view, 2> functions; // that it calls
};

// In the order of nqScript.
constexpr std::array<Script, nqScriptCount> scripts{{
    {open, {makeGroupFunction, isAnotherStreamFunction}},
    {accept, {isAnotherStreamFunction}},
    {watch, {isAnotherStreamFunction}},
    {withdraw, {}},
    {taken, {}},
    {join, {makeGroupFunction, loseFunction}},
    {beat, {}},
    {finish, {}},
    {handBack, {}},
    {leave, {giveBackFunction}},
    {restore, {makeGroupFunction}},
    {lose, {loseFunction}},
    {sweep, {giveBackFunction}},
}};

} // namespace

std::string textOf(nqScript script)
{
    const Script& chosen = scripts[static_cast<std::size_t>(script)];
    std::string text = "#!lua flags=allow-oom\n";
    text += fieldFunction;
    for (const std::string_view function : chosen.functions)
        text += function;
    text += chosen.body;
    return text;
}

} // namespace nq
