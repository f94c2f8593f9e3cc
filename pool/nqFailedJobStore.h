#pragma once

#include "nqOutcome.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace nq {

/// A folder with the newest failed jobs: for each one NAME.job, its bytes, and NAME.txt, which says
/// what happened and how to run it again.
///
/// The names sort by time, and hold the host's process id and the job's id. A file is there as a
/// whole or not at all, and NAME.txt before NAME.job. Only the user may read them, as with a core
/// dump. Several pools and programs may share a folder, and what else lies there is left alone.
///
/// What cannot be kept is a warning in the log, and problem() says it; the job's outcome is the
/// same.
class nqFailedJobStore {
public:
    /// A relative `folder` counts from the current one now, and is made if it is missing; an empty
    /// one keeps nothing. Keeps the newest `limit` jobs; 0: all. `program` runs a job again with
    /// `--job FILE`; empty when none does.
    nqFailedJobStore(const std::string& folder, std::size_t limit, std::string program);

    /// Keeps a job that has failed, and returns the path of its bytes; empty when that cannot be.
    std::string keep(const nqOutcome& outcome);

    /// Why the folder, or the last job, could not be kept; empty when that is not so.
    const std::string& problem() const;

private:
    bool makeFolder();
    bool write(const std::string& path, std::string_view content);
    void dropOldest() const;
    bool fail(const std::string& what, const std::string& path, int error);

    std::string mFolder;
    std::size_t mLimit;
    std::string mProgram;
    std::string mProblem;
};

} // namespace nq
