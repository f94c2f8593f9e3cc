#include "tests/pool_end_to_end/test_work.h"

#include "pool/include/nqPool.h"
#include "pool/include/nqPoolWorker.h"
#include "tests/common/files.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace pool_end_to_end {

namespace {

unsigned objectsBuilt = 0;

constexpr std::size_t largeResultBytes = std::size_t{60} << 20;

std::string exhaustMemory(const std::string&)
{
    constexpr std::size_t blockBytes = std::size_t{1} << 20;
    std::vector<std::unique_ptr<std::vector<char>>> blocks;
    for (;;)
        blocks.push_back(std::make_unique<std::vector<char>>(blockBytes));
}

std::string refusalOfAPool(const std::string&)
{
    try {
        const nq::nqPool pool;
        return "(none)";
    } catch (const nq::nqPoolError& refusal) {
        return refusal.what();
    }
}

std::string crash(const std::string&)
{
    std::signal(SIGSEGV, SIG_DFL); // a sanitizer would make an exit status of it
    std::raise(SIGSEGV);
    return {};
}

/// Fails with the reason of this number, and with what belongs to it.
std::string report(const std::string& number)
{
    using Reason = nq::nqAttempt::Reason;
    nq::nqJobFailure failure(static_cast<Reason>(std::stoi(number)), "so it was");
    if (failure.reason == Reason::Crashed)
        failure.signal = SIGSEGV;
    if (failure.reason == Reason::Exited)
        failure.exitStatus = 3;
    if (failure.reason == Reason::MemoryCap)
        failure.peakMemory = reportedPeakMemory;
    throw failure;
}

using Command = std::function<std::string(const std::string& argument)>;

const std::map<std::string, Command, std::less<>>& commands()
{
    static const std::map<std::string, Command, std::less<>> all = {
        {"", [](const std::string&) { return ""; }},
        {"echo", [](const std::string& argument) { return argument; }},
        {"nothing", [](const std::string&) { return ""; }},
        {"folder", [](const std::string&) { return std::filesystem::current_path().string(); }},
        {"file", [](const std::string&) { return programFile(); }},
        {"called",
         [](const std::string&) {
             const std::string arguments = common::contentOf("/proc/self/cmdline");
             return arguments.substr(0, arguments.find('\0'));
         }},
        {"pid", [](const std::string&) { return std::to_string(::getpid()); }},
        {"objects", [](const std::string&) { return std::to_string(objectsBuilt); }},
        {"remark",
         [](const std::string& argument) {
             std::cerr << argument << std::endl;
             return argument;
         }},
        {"throw",
         [](const std::string& argument) -> std::string { throw std::runtime_error(argument); }},
        {"complain",
         [](const std::string& argument) -> std::string {
             std::cerr << argument << std::endl;
             throw std::runtime_error("see above");
         }},
        {"report", report},
        {"throw-a-number", [](const std::string&) -> std::string { throw 5; }},
        {"exhaust", exhaustMemory},
        {"exit", [](const std::string& argument) -> std::string { ::_exit(std::stoi(argument)); }},
        {"crash", crash},
        {"pool", refusalOfAPool},
    };
    return all;
}

} // namespace

TestWork::TestWork()
{
    if (const char* text = std::getenv(printedVariable))
        std::cerr << text << std::endl;
    if (const char* text = std::getenv(failingVariable))
        throw std::runtime_error(text);
    ++objectsBuilt;
}

TestWork::~TestWork()
{
    if (const char* path = std::getenv(farewellVariable))
        std::ofstream(path) << "left";
}

void TestWork::operator()(std::string_view job, std::vector<char>& result)
{
    ++mJobs;
    const std::size_t nameBytes = job.find(' ');
    const std::string_view name = job.substr(0, nameBytes);
    if (name == "exhaust-beside-a-result") {
        result.resize(largeResultBytes);
        exhaustMemory({});
    }
    const bool hasArgument = nameBytes != std::string_view::npos;
    const std::string text = run(name, std::string(hasArgument ? job.substr(nameBytes + 1) : ""));
    result.assign(text.begin(), text.end());
}

std::string TestWork::run(std::string_view name, const std::string& argument)
{
    if (name == "jobs")
        return std::to_string(mJobs);
    const auto command = commands().find(name);
    if (command == commands().end())
        throw std::invalid_argument("no such command: " + std::string(name));
    return command->second(argument);
}

std::string programFile(const std::string& path)
{
    struct stat file {};
    if (::stat(path.c_str(), &file) != 0)
        return "(none)";
    return std::to_string(file.st_dev) + ':' + std::to_string(file.st_ino);
}

} // namespace pool_end_to_end
