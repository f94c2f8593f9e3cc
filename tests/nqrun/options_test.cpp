#include "tools/nqrun/error.h"
#include "tools/nqrun/options.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string_view>

namespace nqrun {
namespace {

using Words = std::vector<std::string>;

Options parsed(std::vector<const char*> words)
{
    words.insert(words.begin(), "nqrun");
    int status = 0;
    const auto options = parseOptions(static_cast<int>(words.size()), words.data(), "1", status);
    return options.value_or(Options());
}

std::string refusalOf(const std::vector<const char*>& words)
{
    try {
        parsed(words);
        return "taken";
    } catch (const Error& error) {
        return error.what();
    }
}

TEST(Options, endWhereTheCommandBegins)
{
    const Options options =
        parsed({"-j", "3", "grep", "-j", "--timeout", "x", ":::", "-k", "--foo"});
    EXPECT_EQ(options.jobs, 3U);
    EXPECT_EQ(options.command, (Words{"grep", "-j", "--timeout", "x"}));
    EXPECT_EQ(options.items.arguments, (Words{"-k", "--foo"}));
}

TEST(Options, mayBeginACommandAfterTwoDashes)
{
    EXPECT_EQ(parsed({"-k", "--", "-odd", "a"}).command, (Words{"-odd", "a"}));
}

TEST(Options, leaveTwoDashesOfTheCommandAlone)
{
    EXPECT_EQ(parsed({"rm", "--", "{}"}).command, (Words{"rm", "--", "{}"}));
    EXPECT_EQ(parsed({"--", "rm", "--", "{}"}).command, (Words{"rm", "--", "{}"}));
}

TEST(Options, thatAreUnknownAreNamed)
{
    EXPECT_EQ(refusalOf({"--foo", "echo"}), "unknown option --foo; see nqrun --help");
    EXPECT_EQ(refusalOf({"-k", "--foo=1", "echo"}), "unknown option --foo=1; see nqrun --help");
    EXPECT_EQ(refusalOf({"-x", "echo"}), "unknown option -x; see nqrun --help");
}

TEST(Options, sayWhichValueIsMissingOrTooMuch)
{
    EXPECT_EQ(refusalOf({"-j"}), "--jobs needs a value; see nqrun --help");
    EXPECT_EQ(refusalOf({"-k", "--timeout"}), "--timeout needs a value; see nqrun --help");
    EXPECT_EQ(
        refusalOf({"--timeout", "3", "--timeout", "4", "echo"}),
        "--timeout is given more than once; see nqrun --help");
}

TEST(Options, takeFilesOfItems)
{
    const Options options = parsed({"echo", "::::", "a", "-"});
    EXPECT_EQ(options.items.files, (Words{"a", "-"}));
    EXPECT_FALSE(options.items.arguments);
    EXPECT_EQ(refusalOf({"echo", "::::"}), ":::: wants files to read items from");
}

TEST(Options, takeOneListOfItems)
{
    EXPECT_NE(
        refusalOf({"echo", ":::", "a", ":::", "b"}).find("one ::: or ::::"), std::string::npos);
    EXPECT_NE(
        refusalOf({"echo", ":::", "a", ":::+", "b"}).find("one ::: or ::::"), std::string::npos)
        << "two lists side by side, elsewhere";
}

TEST(Options, mayComeWithoutItems)
{
    EXPECT_EQ(parsed({"echo", ":::"}).items.arguments, Words());
}

TEST(Options, refuseToRunNothing)
{
    EXPECT_EQ(refusalOf({}), "there is no command; see nqrun --help");
    EXPECT_EQ(refusalOf({":::", "a"}), "there is no command; see nqrun --help");
    EXPECT_EQ(refusalOf({"", "a"}), "the command has an empty name");
}

TEST(Options, refuseValuesThatMakeNoSense)
{
    for (const auto& words : std::vector<std::vector<const char*>>{
             {"-j", "x", "echo"},
             {"-j", "-1", "echo"},
             {"-j", "+2", "echo"},
             {"-j", "010", "echo"},
             {"-j"},
             {"--timeout", "0", "echo"},
             {"--timeout", "soon", "echo"},
             {"--timeout=", "echo"},
             {"--memory", "lots", "echo"},
             {"--memory=", "echo"},
             {"--block", "2G", "--pipe", "echo"},
             {"--lines", "0", "--pipe", "echo"},
             {"--halt", "maybe", "echo"},
             {"--shard", "3/2", "echo"},
             {"--shard=", "echo"},
             {"--joblog=", "echo"},
             {"--retries", "-1", "echo"},
             {"--retries", "+1", "echo"},
             {"--lines", "0x10", "--pipe", "echo"},
             {"--joblog", "x", "--joblog-format", "xml", "echo"}})
        EXPECT_NE(refusalOf(words), "taken")
            << words.front() << ' ' << (words.size() > 1 ? words[1] : "");
}

TEST(Options, refuseWhatDoesNotGoTogether)
{
    for (const auto& words : std::vector<std::vector<const char*>>{
             {"--resume", "echo"},
             {"--resume-failed", "echo"},
             {"--joblog-format", "json", "echo"},
             {"--block", "1M", "echo"},
             {"--lines", "3", "echo"},
             {"--pipe", "--block", "1M", "--lines", "3", "echo"},
             {"--pipe", "echo", ":::", "a"},
             {"--results", "x", "echo"},
             {"--worker", "w", "echo"},
             {"--worker", "w", "--shell"},
             {"--worker", "w", "--dry-run"}})
        EXPECT_NE(refusalOf(words), "taken") << words.front();
}

TEST(Options, refuseOneFileForTwoThings)
{
    EXPECT_EQ(
        refusalOf({"--joblog", "x", "--metrics", "y", "--trace", "x", "echo"}),
        "--joblog and --trace name the same file, x");
    EXPECT_EQ(parsed({"--joblog", "x", "--trace", "y", "echo"}).trace, "y");
}

TEST(Options, takeAWorkerInsteadOfACommand)
{
    const Options options = parsed({"--worker", "./w", "--results", "out", ":::", "a"});
    EXPECT_EQ(options.worker, "./w");
    EXPECT_TRUE(options.command.empty());
}

TEST(Options, takeAQueueInsteadOfACommand)
{
    const Options options = parsed(
        {"--redis", "unix:r", "--queue", "q", "--password-file", "p", "-j", "9000", ":::", "a"});
    EXPECT_TRUE(options.hasCluster());
    EXPECT_EQ(options.cluster.queue, "q");
    EXPECT_EQ(options.cluster.passwordFile, "p");
    EXPECT_EQ(options.jobs, 9000U);
    EXPECT_FALSE(parsed({"echo"}).hasCluster());
}

TEST(Options, sayWhoDecidesWhatBesideAQueue)
{
    const auto refusal = [](std::vector<const char*> more) {
        more.insert(more.begin(), {"--redis", "unix:r", "--queue", "q"});
        return refusalOf(more);
    };
    EXPECT_NE(refusal({"echo"}).find("no command: what runs is the worker"), std::string::npos);
    EXPECT_NE(refusal({"--worker", "w"}).find("do not go together"), std::string::npos);
    EXPECT_NE(refusal({"--memory", "1G"}).find("--memory-cap"), std::string::npos);
    EXPECT_NE(refusal({"--metrics", "m"}).find("their own --metrics"), std::string::npos);
    for (const char* const option : {"--trace", "--timeline", "--status"})
        EXPECT_NE(refusal({option, "f"}).find("nq-agent status"), std::string::npos) << option;
    EXPECT_NE(refusal({"--shell"}), "taken");
    EXPECT_NE(refusal({"--dry-run"}), "taken");
    EXPECT_EQ(refusal({"--pipe", "--block", "65M"}), "--block takes 64M at most with --redis");
    EXPECT_EQ(refusal({"--pipe", "--block", "64M"}), "taken");
}

TEST(Options, askForAllOfAQueue)
{
    EXPECT_EQ(refusalOf({"--redis", "unix:r"}), "--redis needs the --queue that the agents serve");
    EXPECT_EQ(refusalOf({"--queue", "q", "echo"}), "--queue names a queue of a --redis");
    EXPECT_EQ(refusalOf({"--password-file", "f", "echo"}), "--password-file is that of a --redis");
}

TEST(Options, allowMoreInAQueueThanCommandsAtATime)
{
    EXPECT_EQ(refusalOf({"-j", "4097", "echo"}), "--jobs takes 4096 at most; see nqrun --help");
    EXPECT_EQ(parsed({"-j", "4096", "echo"}).jobs, 4096U);
}

TEST(Help, fitsAScreen)
{
    const std::string_view help = helpText();
    EXPECT_LE(std::count(help.begin(), help.end(), '\n'), 40);
    for (std::size_t begin = 0; begin < help.size();) {
        const std::size_t end = help.find('\n', begin);
        EXPECT_LT(end - begin, 80U) << help.substr(begin, end - begin);
        begin = end + 1;
    }
}

} // namespace
} // namespace nqrun
