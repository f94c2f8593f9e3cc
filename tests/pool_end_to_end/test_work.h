#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace pool_end_to_end {

/// What the workers of these tests do; a job names it. See test_work.cpp for all of it.
class TestWork {
public:
    TestWork();
    ~TestWork();
    TestWork(const TestWork&) = delete;
    TestWork& operator=(const TestWork&) = delete;

    void operator()(std::string_view job, std::vector<char>& result);

private:
    std::string run(std::string_view name, const std::string& argument);

    unsigned mJobs = 0;
};

constexpr std::uint64_t reportedPeakMemory = std::uint64_t{300} << 20; // bytes

/// Environment variables that a worker's TestWork looks at.
constexpr const char* failingVariable = "NQ_TEST_WORK_FAILS";     // text of its exception
constexpr const char* printedVariable = "NQ_TEST_WORK_PRINTS";    // it prints that at first
constexpr const char* farewellVariable = "NQ_TEST_WORK_FAREWELL"; // file that it writes at its end

/// Which file a process runs, however it is called: its device and inode.
std::string programFile(const std::string& path = "/proc/self/exe");

} // namespace pool_end_to_end
