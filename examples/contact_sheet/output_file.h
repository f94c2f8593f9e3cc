#pragma once

#include <cstdio>
#include <string>

namespace sheet {

/// A file that appears under its name all at once, when it is whole, and leaves whatever stood
/// there alone until then. Everything that can be refused is refused by the constructor, before any
/// work.
class OutputFile {
public:
    /// Throws std::runtime_error when nothing can be written there.
    explicit OutputFile(const std::string& path);

    /// Removes what was written, unless it was kept.
    ~OutputFile();

    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    const std::string& path() const;
    std::FILE* stream();

    /// Puts the file in its place. Throws std::runtime_error when any write failed.
    void keep();

private:
    [[noreturn]] void fail(int error) const;

    std::string mPath;
    std::string mPartPath; // beside the final place, since a rename does not cross file systems
    std::FILE* mStream = nullptr;
};

} // namespace sheet
