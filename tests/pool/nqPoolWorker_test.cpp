#include "pool/include/nqPoolWorker.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace {

using nq::detail::workOf;
using nq::detail::workOfOne;

std::string resultOf(const nq::nqWork& work, std::string_view job)
{
    std::vector<char> result;
    work(job, result);
    return {result.begin(), result.end()};
}

std::string doubled(std::string_view job)
{
    return std::string(job) + std::string(job);
}

struct Counter {
    int jobs = 0;
    std::string operator()(std::string_view)
    {
        return std::to_string(++jobs);
    }
};

struct CountingSink {
    int jobs = 0;
    void operator()(std::string_view, std::vector<char>& result)
    {
        result.assign(static_cast<std::size_t>(++jobs), '+');
    }
};

TEST(Work, mayBeAPlainFunction)
{
    EXPECT_EQ(resultOf(workOf(doubled), "ab"), "abab");
}

TEST(Work, mayReturnAView)
{
    EXPECT_EQ(resultOf(workOf([](std::string_view job) { return job.substr(1); }), "abc"), "bc");
}

TEST(Work, mayReturnALiteral)
{
    EXPECT_EQ(resultOf(workOf([](std::string_view) { return "done"; }), "abc"), "done");
}

TEST(Work, mayReturnNothing)
{
    std::string seen;
    EXPECT_EQ(resultOf(workOf([&](std::string_view job) { seen = job; }), "abc"), "");
    EXPECT_EQ(seen, "abc");
}

TEST(Work, mayFillTheResultItself)
{
    const auto fill = [](std::string_view job, std::vector<char>& result) {
        result.assign(job.rbegin(), job.rend());
    };
    EXPECT_EQ(resultOf(workOf(fill), "abc"), "cba");
}

TEST(Work, mayReturnAVectorWhichIsNotCopied)
{
    const char* memory = nullptr;
    const nq::nqWork work = workOf([&](std::string_view job) {
        std::vector<char> made(job.begin(), job.end());
        memory = made.data();
        return made;
    });
    std::vector<char> result;
    work("a job", result);
    EXPECT_EQ(result.data(), memory);
}

TEST(Work, mayReturnAVectorThatItKeeps)
{
    const std::vector<char> kept = {'k'};
    const nq::nqWork work =
        workOf([&](std::string_view) -> const std::vector<char>& { return kept; });
    EXPECT_EQ(resultOf(work, "abc"), "k");
    EXPECT_EQ(kept.size(), 1U);
}

TEST(Work, mayChangeWhatItHolds)
{
    const nq::nqWork work =
        workOf([count = 0](std::string_view) mutable { return std::to_string(++count); });
    EXPECT_EQ(resultOf(work, ""), "1");
    EXPECT_EQ(resultOf(work, ""), "2");
}

TEST(Work, mayBeAnObject)
{
    const nq::nqWork work = workOfOne<Counter>();
    EXPECT_EQ(resultOf(work, ""), "1");
    EXPECT_EQ(resultOf(work, ""), "2");
}

TEST(Work, mayBeAnObjectThatFillsTheResultItself)
{
    const nq::nqWork work = workOfOne<CountingSink>();
    EXPECT_EQ(resultOf(work, ""), "+");
    EXPECT_EQ(resultOf(work, ""), "++");
}

} // namespace
