#pragma once

#include "nqExport.h"
#include "nqOutcome.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

/// What the libraries declare: the classes, and the functions that make a program a worker.
namespace nq {

/// Thrown by the work, fails the job for a reason that the work knows: the program that it has run
/// was ended by a signal, say. The worker lives on, as with any exception; only the job's outcome
/// is as if the worker had come to that end, in retries, statistics and the files that show the
/// pool.
/// @code
/// nq::nqJobFailure failure(nq::nqAttempt::Reason::Crashed, "the converter was ended by SIGSEGV");
/// failure.signal = SIGSEGV;
/// throw failure;
/// @endcode
class NQ_API nqJobFailure : public std::runtime_error {
public:
    /// `message` becomes that of the attempt, `why` its reason: one of `Crashed`, `Exited`,
    /// `MemoryCap`, `Timeout` and `Exception`; the others are the pool's alone, and any of them
    /// counts as `Exception`.
    nqJobFailure(nqAttempt::Reason why, const std::string& message);

    ~nqJobFailure() override;
    /// A copy, as whatever is thrown needs to have.
    nqJobFailure(const nqJobFailure&) = default;

    /// Becomes a copy.
    nqJobFailure& operator=(const nqJobFailure&) = default;

    /// @name What else is known
    /// Becomes what nqAttempt has under the same names.
    /// @{
    nqAttempt::Reason reason;                ///< as constructed
    std::optional<int> exitStatus;           ///< of a program that left
    std::optional<int> signal;               ///< that ended it
    bool dumpedCore = false;                 ///< by that signal
    std::optional<std::uint64_t> peakMemory; ///< bytes
    /// @}
};

/// What a worker does with one job: reads it, and appends to or replaces `result`, which is empty
/// at the call. May leave it empty. An exception fails the job with its what(), and the worker
/// lives on; see nqJobFailure for one that has a reason.
using nqWork = std::function<void(std::string_view job, std::vector<char>& result)>;

/// Makes the work, once in each worker process, before its first job. An exception ends the worker,
/// and counts as a launch that has failed.
using nqMakeWork = std::function<nqWork()>;

/// @cond internal
namespace detail {

inline void assignResult(std::vector<char>& result, std::vector<char>&& value)
{
    result = std::move(value);
}
inline void assignResult(std::vector<char>& result, const std::vector<char>& value)
{
    result = value;
}
inline void assignResult(std::vector<char>& result, std::string_view value)
{
    result.assign(value.begin(), value.end());
}

/// Any function of one job in the form that workers use.
template <typename Function>
nqWork workOf(Function function)
{
    if constexpr (std::is_invocable_v<Function&, std::string_view, std::vector<char>&>) {
        return function;
    } else {
        static_assert(
            std::is_invocable_v<Function&, std::string_view>,
            "the work of a worker takes a job as std::string_view");
        return [function =
                    std::move(function)](std::string_view job, std::vector<char>& result) mutable {
            if constexpr (std::is_void_v<std::invoke_result_t<Function&, std::string_view>>)
                function(job);
            else
                assignResult(result, function(job));
        };
    }
}

/// The same of a class, of which one object is made.
template <typename Work>
nqWork workOfOne()
{
    auto work = std::make_shared<Work>();
    if constexpr (std::is_invocable_v<Work&, std::string_view, std::vector<char>&>)
        return [work](std::string_view job, std::vector<char>& result) { (*work)(job, result); };
    else
        return workOf([work](std::string_view job) -> decltype(auto) { return (*work)(job); });
}

} // namespace detail
/// @endcond

/// In a worker process: makes the work, runs it for each job and ends the process; never returns.
/// With `--job FILE` as the only arguments: runs the job in the file in this process, writes the
/// result to standard output and ends the process. Otherwise returns at once, and lets pools have
/// this program as their worker.
///
/// Belongs at the very beginning of main(), before anything that a worker should not do as well:
/// options, files, threads. A worker has the host's working folder, the null device as standard
/// input, and none of the host's arguments.
NQ_API void runAsWorkerMade(int argc, char* argv[], nqMakeWork make);

/// The same in a program that is nothing but a worker: returns what main() should. Started by hand,
/// it explains itself on standard error.
NQ_API int runWorkerMade(int argc, char* argv[], nqMakeWork make);

/// runAsWorkerMade() for a function that takes a job as `std::string_view` and returns the result
/// as something convertible to that, as `std::vector<char>` (which is not copied) or not at all; or
/// that has the form of nqWork.
template <typename Function>
void runAsWorker(int argc, char* argv[], Function function)
{
    runAsWorkerMade(argc, argv, [function] { return detail::workOf(function); });
}

/// The same for a class: one object of it is built in each worker, and called for each job.
template <typename Work>
void runAsWorker(int argc, char* argv[])
{
    runAsWorkerMade(argc, argv, [] { return detail::workOfOne<Work>(); });
}

/// runWorkerMade() for a function, as in runAsWorker():
/// @code
/// int main(int argc, char* argv[])
/// {
///     return nq::runWorker(argc, argv, [](std::string_view job) { return reversed(job); });
/// }
/// @endcode
template <typename Function>
int runWorker(int argc, char* argv[], Function function)
{
    return runWorkerMade(argc, argv, [function] { return detail::workOf(function); });
}

/// The same for a class, as in runAsWorker().
template <typename Work>
int runWorker(int argc, char* argv[])
{
    return runWorkerMade(argc, argv, [] { return detail::workOfOne<Work>(); });
}

} // namespace nq
