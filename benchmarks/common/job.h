#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace bench {

/// What a job asks of its worker; the first byte of every job.
enum class Kind : char {
    echo = 'e', // send the job back
    work = 'w', // burn one millisecond of processor time, then send the job back
    hold = 'h', // keep the job until the worker is killed
    die = 'd',  // note the time, then die without an answer
};

constexpr std::int64_t workNanoseconds = 1'000'000;

/// The worker's part of a job, the same for every pool. What is sent back is the job itself.
void perform(const char* job);

/// Numbers the jobs of a run and checks every result, the same way for every pool: its length, the
/// last byte, and that each number comes back once. A wrong result ends the program.
class Ledger {
public:
    /// `bytes` is the size of each job, at least 1.
    Ledger(Kind kind, std::size_t bytes);

    std::size_t jobBytes() const;

    /// Writes number, kind and last byte over a job of jobBytes() bytes.
    void stamp(char* job);

    /// The next job that is stamped kills its worker.
    void makeNextFatal();

    void check(const char* result, std::size_t size);

    /// Calls `then` as soon as `count` results in all have been checked. One call at a time waits.
    void callAfter(std::uint64_t count, std::function<void()> then);

    /// The pool reports that a job is lost.
    void lose();

    /// Ends the program unless every job has come back or was lost on purpose.
    void requireBalance() const;

private:
    Kind mKind;
    std::size_t mBytes;
    bool mNextIsFatal = false;
    std::uint64_t mNumber = 0;    // of the next job
    std::uint64_t mSum = 0;       // of all numbers that are under way
    std::uint64_t mUnderWay = 0;  // jobs
    std::uint64_t mFatalJobs = 0; // under way
    std::uint64_t mChecked = 0;   // results
    std::uint64_t mCallAfter = 0; // results; 0: no call waits
    std::function<void()> mCall;
};

/// Where a dying worker leaves the time for its host, which is another process: a page of a file
/// that the workers find through the environment.
class DeathNote {
public:
    DeathNote();
    ~DeathNote();
    DeathNote(const DeathNote&) = delete;
    DeathNote& operator=(const DeathNote&) = delete;

    /// Monotonic nanoseconds of the last death; 0 when there was none.
    std::int64_t diedAt() const;

private:
    int mFile = -1;
    const std::int64_t* mPage = nullptr;
};

} // namespace bench
