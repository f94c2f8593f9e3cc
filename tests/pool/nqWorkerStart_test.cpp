#include "pool/nqWorkerStart.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace {

using nq::nqWorkerStart;

const std::string tag = "00112233445566778899aabbccddeeff";

/// A command line in the form in which main() gets it.
class CommandLine {
public:
    explicit CommandLine(std::vector<std::string> texts)
        : mTexts(std::move(texts))
    {
        for (std::string& text : mTexts)
            mPointers.push_back(text.data());
        mPointers.push_back(nullptr);
    }

    int count() const
    {
        return static_cast<int>(mTexts.size());
    }
    char* const* texts() const
    {
        return mPointers.data();
    }

private:
    std::vector<std::string> mTexts;
    std::vector<char*> mPointers;
};

bool isOne(const std::vector<std::string>& texts)
{
    const CommandLine line(texts);
    return nqWorkerStart::isOne(line.count(), line.texts());
}

std::optional<nqWorkerStart> read(const std::vector<std::string>& texts)
{
    const CommandLine line(texts);
    return nqWorkerStart::read(line.count(), line.texts());
}

nqWorkerStart ofAnotherProgram()
{
    nqWorkerStart start;
    start.tag = tag;
    start.host = 4711;
    return start;
}

nqWorkerStart ofOwnProgram()
{
    nqWorkerStart start = ofAnotherProgram();
    start.program = nqWorkerStart::Program{{65'024, 18'446'744'073'709'551'615U}, 7};
    return start;
}

TEST(WorkerStart, tellsTheTagAndTheHost)
{
    const nqWorkerStart sent = ofAnotherProgram();
    const std::optional<nqWorkerStart> start = read({"worker", sent.argument(), "pipe"});
    ASSERT_TRUE(start);
    EXPECT_EQ(start->tag, tag);
    EXPECT_EQ(start->host, 4711);
    EXPECT_FALSE(start->program);
}

TEST(WorkerStart, tellsTheProgram)
{
    const nqWorkerStart sent = ofOwnProgram();
    const std::optional<nqWorkerStart> start = read({"host", sent.argument(), "pipe"});
    ASSERT_TRUE(start && start->program);
    EXPECT_EQ(start->tag, tag);
    EXPECT_TRUE(start->program->identity == sent.program->identity);
    EXPECT_EQ(start->program->descriptor, 7);
}

TEST(WorkerStart, standsBehindTheProgramsOwnArguments)
{
    EXPECT_TRUE(read({"worker", "--verbose", "file", ofOwnProgram().argument(), "pipe"}));
}

TEST(WorkerStart, isNoneWithoutThePipe)
{
    EXPECT_FALSE(isOne({"host", ofOwnProgram().argument()}));
}

TEST(WorkerStart, isNoneOnAnyOtherCommandLine)
{
    EXPECT_FALSE(isOne({}));
    EXPECT_FALSE(isOne({"host"}));
    EXPECT_FALSE(isOne({"host", "file"}));
    EXPECT_FALSE(isOne({"host", "--verbose", "file"}));
    EXPECT_FALSE(isOne({"host", ofOwnProgram().argument(), "more", "pipe"}));
}

TEST(WorkerStart, makesNoSenseWithAProgramThatIsCutShort)
{
    const std::string whole = ofOwnProgram().argument();
    for (std::size_t size = ofAnotherProgram().argument().size() + 1; size < whole.size(); ++size)
        EXPECT_FALSE(read({"host", whole.substr(0, size), "pipe"})) << whole.substr(0, size);
}

TEST(WorkerStart, makesNoSenseWithoutATag)
{
    EXPECT_FALSE(read({"host", "--nq-pool-worker=", "pipe"}));
    EXPECT_FALSE(read({"host", "--nq-pool-worker=0011", "pipe"}));
}

TEST(WorkerStart, makesNoSenseWithMoreBehindTheProgram)
{
    EXPECT_FALSE(read({"host", ofOwnProgram().argument() + "x", "pipe"}));
    EXPECT_FALSE(read({"host", ofOwnProgram().argument() + ":1", "pipe"}));
}

TEST(WorkerStart, makesNoSenseWithNumbersOutOfRange)
{
    const nqWorkerStart sent = ofAnotherProgram();
    EXPECT_FALSE(read({"host", sent.argument() + ":1:18446744073709551616:3", "pipe"}));
    EXPECT_FALSE(read({"host", sent.argument() + ":1:2:2147483648", "pipe"}));
}

} // namespace
