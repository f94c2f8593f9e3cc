#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace nq {

/// A file that shows a pool, see nqPoolOptions.
class nqShownFile {
public:
    /// Throws nqPoolError, which begins with `what`, when the file cannot be written. A relative
    /// path counts from the current folder now.
    nqShownFile(std::string what, const std::string& path);

    /// Replaces it as a whole. False when that fails; the first of some failures in a row is a
    /// warning.
    bool replace(std::string_view content);

    /// The same, but throws nqPoolError.
    void require(std::string_view content);

    /// Why the last write has failed, in a sentence; empty: it has not.
    const std::string& problem() const;

private:
    std::string mWhat;
    std::string mPath;
    std::string mProblem;
};

/// One that grows at its end, and is empty at first. Closed in programs that the host starts.
class nqGrowingFile {
public:
    nqGrowingFile(std::string what, const std::string& path); ///< as nqShownFile
    ~nqGrowingFile();
    nqGrowingFile(const nqGrowingFile&) = delete;
    nqGrowingFile& operator=(const nqGrowingFile&) = delete;

    /// False when that fails; the file is then as before. Nothing is written after the first
    /// failure, which is a warning: what comes after a gap would not be readable.
    bool append(std::string_view content);

    const std::string& problem() const; ///< as nqShownFile

private:
    const std::string mWhat;
    const std::string mPath;
    int mDescriptor;
    std::size_t mSize = 0;
    std::string mProblem;
};

} // namespace nq
