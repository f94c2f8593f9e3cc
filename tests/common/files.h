#pragma once

#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <sys/types.h>

namespace common {

/// The bytes of a file; empty for one that cannot be read, as those of a process that has ended.
std::string contentOf(const std::string& path);

/// A folder of its own for one test, removed with everything in it.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string path() const;
    std::string file(const std::string& name) const;

    /// Each makes something in this folder and returns its path.
    std::string addFile(const std::string& name, const std::string& content, mode_t mode) const;
    std::string addScript(const std::string& name, const std::string& body) const;
    std::string addFifo(const std::string& name) const;

private:
    std::filesystem::path mPath;
};

/// Makes `folder` the current directory until the end of the scope.
class CurrentFolder {
public:
    explicit CurrentFolder(const std::string& folder);
    ~CurrentFolder();
    CurrentFolder(const CurrentFolder&) = delete;
    CurrentFolder& operator=(const CurrentFolder&) = delete;

private:
    std::filesystem::path mBefore;
};

/// No file may grow beyond these bytes until the end of the scope, as on a full disk.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes);
    ~FileSizeLimit();
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit mBefore{};
};

} // namespace common
