#include "examples/contact_sheet/options.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace sheet;

ParsedOptions parse(std::vector<const char*> arguments)
{
    arguments.insert(arguments.begin(), "contact-sheet");
    return parseOptions(static_cast<int>(arguments.size()), arguments.data(), "the version");
}

TEST(Options, needOnlyAPictureAndAPath)
{
    const ParsedOptions parsed = parse({"out/sheet.png", "a", "b"});
    ASSERT_TRUE(parsed.options);
    EXPECT_EQ(parsed.options->output, "out/sheet.png");
    EXPECT_EQ(parsed.options->paths, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(parsed.options->report, "out/sheet.json");
    EXPECT_GE(parsed.options->pool.workers, 2u);
}

TEST(Options, takeSizesWithUnits)
{
    const ParsedOptions parsed =
        parse({"--memory", "300M", "--allocation=2G", "--memory-after", "4096", "o.png", "a"});
    ASSERT_TRUE(parsed.options);
    EXPECT_EQ(parsed.options->pool.memory, 300ul << 20);
    EXPECT_EQ(parsed.options->pool.allocation, 2ul << 30);
    EXPECT_EQ(parsed.options->pool.memoryAfterJob, 4096ul);
}

TEST(Options, refuseWhatMakesNoSense)
{
    const std::vector<std::vector<const char*>> wrong{
        {},
        {"o.png"},
        {"--workers", "0", "o.png", "a"},
        {"--workers", "many", "o.png", "a"},
        {"--timeout", "0", "o.png", "a"},
        {"--size", "5", "o.png", "a"},
        {"--columns", "-1", "o.png", "a"},
        {"--memory", "lots", "o.png", "a"},
        {"--worker", "/no/such/program", "o.png", "a"},
        {"--font", "/no/such/font", "o.png", "a"},
        {"--no-such-option", "o.png", "a"}};
    for (const std::vector<const char*>& arguments : wrong) {
        const ParsedOptions parsed = parse(arguments);
        EXPECT_FALSE(parsed.options) << (arguments.empty() ? "nothing" : arguments[0]);
        EXPECT_EQ(parsed.exitStatus, exitUsage);
    }
}

TEST(Options, printHelpAndVersionAndAreDone)
{
    for (const char* question : {"--help", "-h", "--version"}) {
        testing::internal::CaptureStdout();
        const ParsedOptions parsed = parse({question});
        const std::string answer = testing::internal::GetCapturedStdout();
        EXPECT_FALSE(parsed.options);
        EXPECT_EQ(parsed.exitStatus, exitAllGood);
        EXPECT_FALSE(answer.empty());
    }
}

TEST(Options, printTheVersionTheyWereGiven)
{
    testing::internal::CaptureStdout();
    parse({"--version"});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "the version\n");
}

} // namespace
