#include "tools/nqrun/error.h"
#include "tools/nqrun/shard.h"

#include <gtest/gtest.h>
#include <map>

namespace nqrun {
namespace {

using Variables = std::map<std::string, std::string>;

Shard shardOf(const std::string& text, const Variables& variables = {})
{
    return parseShard(text, [&variables](const std::string& name) -> std::optional<std::string> {
        const auto found = variables.find(name);
        return found != variables.end() ? std::optional(found->second) : std::nullopt;
    });
}

std::string refusalOf(const std::string& text, const Variables& variables = {})
{
    try {
        const Shard shard = shardOf(text, variables);
        return "taken as " + std::to_string(shard.number) + '/' + std::to_string(shard.count);
    } catch (const Error& error) {
        return error.what();
    }
}

bool mentions(const std::string& text, const char* part)
{
    return text.find(part) != text.npos;
}

Variables
slurm(const char* id, const char* first, const char* last, const char* count, const char* step)
{
    return {
        {"SLURM_ARRAY_TASK_ID", id},
        {"SLURM_ARRAY_TASK_MIN", first},
        {"SLURM_ARRAY_TASK_MAX", last},
        {"SLURM_ARRAY_TASK_COUNT", count},
        {"SLURM_ARRAY_TASK_STEP", step}};
}

TEST(Shard, holdsEveryItemInExactlyOne)
{
    for (const std::uint64_t count : {1U, 2U, 3U, 7U}) {
        for (std::uint64_t index = 1; index <= 50; ++index) {
            unsigned holders = 0;
            for (std::uint64_t number = 1; number <= count; ++number)
                holders += Shard{number, count}.holds(index) ? 1 : 0;
            EXPECT_EQ(holders, 1U);
        }
    }
}

TEST(ParseShard, readsANumberAndACount)
{
    const Shard shard = shardOf("2/8");
    EXPECT_EQ(shard.number, 2U);
    EXPECT_EQ(shard.count, 8U);
}

TEST(ParseShard, refusesWhatIsNoShard)
{
    for (const char* const text :
         {"", "1", "0/2", "3/2", "1/0", "/2", "1/", "a/2", "-1/2", "1/2/3"})
        EXPECT_TRUE(mentions(refusalOf(text), "--shard takes")) << text;
}

TEST(ShardAuto, isATaskOfASlurmArray)
{
    const Shard shard = shardOf("auto", slurm("6", "0", "8", "5", "2"));
    EXPECT_EQ(shard.number, 4U);
    EXPECT_EQ(shard.count, 5U);
}

TEST(ShardAuto, refusesAnIrregularSlurmArray)
{
    // Of --array=1,2,7, and a task that its range does not have.
    EXPECT_TRUE(mentions(refusalOf("auto", slurm("2", "1", "7", "3", "1")), "not a plain range"));
    EXPECT_TRUE(mentions(refusalOf("auto", slurm("3", "0", "8", "5", "2")), "not a plain range"));
    EXPECT_TRUE(mentions(refusalOf("auto", slurm("9", "0", "8", "9", "1")), "not a plain range"));
}

TEST(ShardAuto, refusesAnIncompleteEnvironment)
{
    EXPECT_TRUE(
        mentions(refusalOf("auto", {{"SLURM_ARRAY_TASK_ID", "1"}}), "SLURM_ARRAY_TASK_MIN is not"));
    EXPECT_TRUE(mentions(refusalOf("auto", {{"PMI_RANK", "1"}}), "PMI_SIZE is not"));
    EXPECT_TRUE(mentions(refusalOf("auto", {{"PMI_RANK", "x"}, {"PMI_SIZE", "2"}}), "no number"));
    EXPECT_TRUE(mentions(refusalOf("auto"), "neither a Slurm array"));
}

TEST(ShardAuto, isARankOfAnMpiLauncher)
{
    for (const auto& [rank, size] : Variables{
             {"OMPI_COMM_WORLD_RANK", "OMPI_COMM_WORLD_SIZE"},
             {"PMI_RANK", "PMI_SIZE"},
             {"MV2_COMM_WORLD_RANK", "MV2_COMM_WORLD_SIZE"},
             {"SLURM_PROCID", "SLURM_STEP_NUM_TASKS"}}) {
        const Shard shard = shardOf("auto", {{rank, "3"}, {size, "4"}});
        EXPECT_EQ(shard.number, 4U);
        EXPECT_EQ(shard.count, 4U);
        EXPECT_TRUE(mentions(refusalOf("auto", {{rank, "4"}, {size, "4"}}), "no shard 5 of 4"));
    }
}

TEST(ShardAuto, isNotTheTaskNumberOfABatchScript)
{
    Variables script = slurm("1", "1", "2", "2", "1");
    script["SLURM_PROCID"] = "0";
    script["SLURM_NTASKS"] = "4";
    EXPECT_EQ(shardOf("auto", script).count, 2U);
    EXPECT_TRUE(mentions(refusalOf("auto", {{"SLURM_PROCID", "0"}}), "neither a Slurm array"));
}

TEST(ShardAuto, refusesToChooseBetweenArrayAndLauncher)
{
    Variables both = slurm("1", "1", "2", "2", "1");
    both["PMI_RANK"] = "0";
    both["PMI_SIZE"] = "4";
    EXPECT_TRUE(mentions(refusalOf("auto", both), "both"));
    both["PMI_SIZE"] = "1";
    EXPECT_EQ(shardOf("auto", both).count, 2U) << "a single rank says nothing";
    both = slurm("1", "1", "2", "2", "1");
    both["SLURM_PROCID"] = "0";
    both["SLURM_STEP_NUM_TASKS"] = "4";
    EXPECT_TRUE(mentions(refusalOf("auto", both), "both")) << "or each of the four ran the same";
}

TEST(ShardAutoN, isAnIndexedJob)
{
    const Shard shard = shardOf("auto/3", {{"JOB_COMPLETION_INDEX", "2"}});
    EXPECT_EQ(shard.number, 3U);
    EXPECT_EQ(shard.count, 3U);
}

TEST(ShardAutoN, refusesAnIndexBeyondTheCount)
{
    EXPECT_TRUE(mentions(refusalOf("auto/3", {{"JOB_COMPLETION_INDEX", "3"}}), "no shard 4 of 3"));
    EXPECT_TRUE(mentions(refusalOf("auto/3"), "JOB_COMPLETION_INDEX is not set"));
}

} // namespace
} // namespace nqrun
