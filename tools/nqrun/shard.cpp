#include "tools/nqrun/shard.h"

#include "tools/nqrun/error.h"
#include "tools/nqrun/text.h"

#include <array>
#include <vector>

namespace nqrun {

namespace {

constexpr const char* form = "--shard takes I/N with I from 1 to N, auto, or auto/N";

/// A rank from 0 and how many there are.
struct Rank {
    const char* number;
    const char* count;
};

constexpr std::array<Rank, 3> launchers = {{
    {"OMPI_COMM_WORLD_RANK", "OMPI_COMM_WORLD_SIZE"},
    {"PMI_RANK", "PMI_SIZE"},
    {"MV2_COMM_WORLD_RANK", "MV2_COMM_WORLD_SIZE"},
}};

std::optional<std::uint64_t> numberIn(const Environment& environment, const char* name)
{
    const std::optional<std::string> text = environment(name);
    if (!text)
        return std::nullopt;
    const std::optional<std::uint64_t> number = parseNumber(*text);
    if (!number)
        throw Error(std::string("--shard: ") + name + " is no number: " + shown(*text, 60));
    return number;
}

std::uint64_t requiredIn(const Environment& environment, const char* name, const char* because)
{
    const std::optional<std::uint64_t> number = numberIn(environment, name);
    if (!number)
        throw Error(std::string("--shard auto: ") + because + " is set, but " + name + " is not");
    return *number;
}

Shard checked(std::uint64_t number, std::uint64_t count, const std::string& what)
{
    if (count == 0 || number < 1 || number > count)
        throw Error(
            "--shard: " + what + ": there is no shard " + std::to_string(number) + " of " +
            std::to_string(count));
    return {number, count};
}

std::optional<Shard> ofSlurmArray(const Environment& environment)
{
    constexpr const char* id = "SLURM_ARRAY_TASK_ID";
    const std::optional<std::uint64_t> task = numberIn(environment, id);
    if (!task)
        return std::nullopt;
    const std::uint64_t first = requiredIn(environment, "SLURM_ARRAY_TASK_MIN", id);
    const std::uint64_t last = requiredIn(environment, "SLURM_ARRAY_TASK_MAX", id);
    const std::uint64_t count = requiredIn(environment, "SLURM_ARRAY_TASK_COUNT", id);
    const std::uint64_t step = numberIn(environment, "SLURM_ARRAY_TASK_STEP").value_or(1);
    const bool isRegular = step > 0 && first <= *task && *task <= last &&
                           (*task - first) % step == 0 && (last - first) / step + 1 == count;
    if (!isRegular)
        throw Error(
            "--shard auto: the Slurm array is not a plain range (task " + std::to_string(*task) +
            " of " + std::to_string(count) + " from " + std::to_string(first) + " to " +
            std::to_string(last) + ", step " + std::to_string(step) + "); give --shard I/N");
    return checked((*task - first) / step + 1, count, "the Slurm array");
}

// The tasks of an srun that knows no MPI. Without a step, in a batch script say, there is one task,
// whatever SLURM_PROCID is.
std::optional<Shard> ofSlurmStep(const Environment& environment)
{
    constexpr const char* tasks = "SLURM_STEP_NUM_TASKS";
    const std::optional<std::uint64_t> count = numberIn(environment, tasks);
    if (!count)
        return std::nullopt;
    return checked(requiredIn(environment, "SLURM_PROCID", tasks) + 1, *count, "SLURM_PROCID");
}

std::optional<Shard> ofLauncher(const Environment& environment)
{
    for (const Rank& rank : launchers) {
        const std::optional<std::uint64_t> number = numberIn(environment, rank.number);
        if (!number)
            continue;
        const std::uint64_t count = requiredIn(environment, rank.count, rank.number);
        return checked(*number + 1, count, rank.number);
    }
    return ofSlurmStep(environment);
}

Shard ofEnvironment(const Environment& environment)
{
    const std::optional<Shard> array = ofSlurmArray(environment);
    const std::optional<Shard> launcher = ofLauncher(environment);
    if (array && launcher && launcher->count > 1)
        throw Error(
            "--shard auto: this is both a task of a Slurm array and one of several that a launcher "
            "has started; "
            "give --shard I/N");
    if (array)
        return *array;
    if (launcher)
        return *launcher;
    throw Error(
        "--shard auto: neither a Slurm array (SLURM_ARRAY_TASK_ID), nor srun "
        "(SLURM_STEP_NUM_TASKS), nor an MPI launcher (OMPI_COMM_WORLD_RANK, PMI_RANK) has set its "
        "variables; in an indexed job of Kubernetes, "
        "give --shard auto/N");
}

Shard ofIndexedJob(const Environment& environment, std::uint64_t count)
{
    const std::optional<std::uint64_t> index = numberIn(environment, "JOB_COMPLETION_INDEX");
    if (!index)
        throw Error("--shard auto/N: JOB_COMPLETION_INDEX is not set; is this an indexed job?");
    return checked(*index + 1, count, "JOB_COMPLETION_INDEX=" + std::to_string(*index));
}

} // namespace

Shard parseShard(const std::string& text, const Environment& environment)
{
    if (text == "auto")
        return ofEnvironment(environment);
    const std::size_t slash = text.find('/');
    if (slash == text.npos)
        throw Error(form);
    const std::optional<std::uint64_t> count = parseNumber(text.substr(slash + 1));
    if (!count || *count == 0)
        throw Error(form);
    const std::string which = text.substr(0, slash);
    if (which == "auto")
        return ofIndexedJob(environment, *count);
    const std::optional<std::uint64_t> number = parseNumber(which);
    if (!number || *number < 1 || *number > *count)
        throw Error(form);
    return {*number, *count};
}

} // namespace nqrun
