#include "pool.h"

#include "machine.h"

#include <chrono>
#include <utility>

namespace end_to_end {

namespace {

constexpr int connectionLimitMs = 30'000; // a worker that is alive connects long before
constexpr int pumpWaitMs = 50; // how soon a condition outside the pipes is looked at again

} // namespace

CapturingLog::CapturingLog()
{
    msInstance = this;
}

CapturingLog::~CapturingLog()
{
    msInstance = nullptr;
}

void CapturingLog::Write(LogEntry& entry, bool flush)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    mLines.push_back({entry.mLevel, entry.mMessage, flush});
    if (onMessage)
        onMessage(entry.mMessage);
}

std::vector<CapturingLog::Line> CapturingLog::lines() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mLines;
}

std::vector<std::string> CapturingLog::messages() const
{
    std::vector<std::string> texts;
    for (const Line& line : lines())
        texts.push_back(line.message);
    return texts;
}

Pool::Pool(const std::vector<std::string>& arguments)
    : Pool(workerPath(), arguments)
{
}

Pool::Pool(const std::string& exePath, const std::vector<std::string>& arguments)
    : mScheduler(exePath, true, arguments, true)
{
}

bool Pool::start(unsigned long nbWorkers)
{
    return mScheduler.startScheduler(nbWorkers, connectionLimitMs);
}

void Pool::push(std::string_view job)
{
    mScheduler.push(std::vector<char>(job.begin(), job.end()));
}

void Pool::pump(int timeoutMs)
{
    mScheduler.processScheduler(timeoutMs);
    popAll();
}

bool Pool::pumpUntil(const std::function<bool()>& done)
{
    const auto deadline = std::chrono::steady_clock::now() + generousLimit;
    popAll();
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        pump(pumpWaitMs);
    }
    return true;
}

bool Pool::collect(std::size_t count)
{
    return pumpUntil([&] { return mAnswers.size() + mFailures.size() >= count; });
}

std::string Pool::ask(std::string_view job)
{
    const std::size_t answersBefore = mAnswers.size();
    const std::size_t before = answersBefore + mFailures.size();
    push(job);
    if (!collect(before + 1))
        return "(neither an answer nor a failure)";
    return mAnswers.size() > answersBefore ? mAnswers.back() : '(' + mFailures.back().message + ')';
}

void Pool::popAll()
{
    std::vector<char> bytes;
    while (mScheduler.pop(bytes))
        mAnswers.emplace_back(bytes.begin(), bytes.end());

    while (const auto failure = common::popFailure(mScheduler))
        mFailures.push_back(*failure);
}

} // namespace end_to_end
