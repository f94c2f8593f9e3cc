#pragma once

#include "pool/include/nqPoolWorker.h"

#include <optional>
#include <string>
#include <sys/types.h>

namespace nq {

/// What stays the same of a file whatever its name, as long as it is open somewhere.
struct nqFileIdentity {
    dev_t device = 0;
    ino_t inode = 0;

    /// Nothing, with errno, when the file cannot be looked at.
    static std::optional<nqFileIdentity> of(const std::string& path);
    static std::optional<nqFileIdentity> of(int descriptor);

    bool operator==(const nqFileIdentity& other) const;
    bool operator!=(const nqFileIdentity& other) const;
};

/// The executable of this process. It is kept open, so that it can be started again when its name
/// has gone to another file, or to none.
class nqOwnExecutable {
public:
    nqOwnExecutable();
    ~nqOwnExecutable();
    nqOwnExecutable(const nqOwnExecutable&) = delete;
    nqOwnExecutable& operator=(const nqOwnExecutable&) = delete;

    /// Why it could not be opened; empty otherwise.
    const std::string& problem() const
    {
        return mProblem;
    }

    const nqFileIdentity& identity() const
    {
        return mIdentity;
    }

    /// Valid for this process and, with /proc, for its children. May have been closed by a program
    /// that closes what it does not know.
    int descriptor() const
    {
        return mDescriptor;
    }

    /// Starts it in a child of this process. Its own path while that is still the same file, which
    /// is what debuggers and other tools like to see.
    std::string path() const;

    /// Whether the file gives rights to whoever starts it.
    bool hasCapabilities() const;

private:
    int mDescriptor = -1;
    nqFileIdentity mIdentity;
    std::string mPath; // its name when it was opened
    std::string mProblem;
};

/// What runAsWorker() and runWorker() note about this process. Written at the beginning of main(),
/// before there are threads.
struct nqOwnProgram {
    /// Null until runAsWorker() has returned.
    static const nqOwnProgram* noted();

    /// A later one replaces the work.
    static void note(nqMakeWork make);

    /// From here on this process runs jobs of a pool, or the job of a file, and has no pool with
    /// its own program.
    static void enterWorker();
    static bool isWorker();

    nqMakeWork make;
    nqOwnExecutable executable;
};

} // namespace nq
