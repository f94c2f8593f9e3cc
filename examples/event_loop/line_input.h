#pragma once

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

/// Standard input by lines, for a loop: read when there is something to read, and never waited for.
class LineInput {
public:
    /// -1 after the end, which poll() passes over.
    int descriptor() const
    {
        return mHasEnded ? -1 : STDIN_FILENO;
    }

    bool hasEnded() const
    {
        return mHasEnded;
    }

    /// The lines that one read completes.
    std::vector<std::string> readLines()
    {
        char bytes[4096];
        const ssize_t count = ::read(STDIN_FILENO, bytes, sizeof bytes);
        mHasEnded = count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN);
        mText.append(bytes, count > 0 ? static_cast<std::size_t>(count) : 0);
        if (mHasEnded && !mText.empty())
            mText += '\n';

        std::vector<std::string> lines;
        for (std::size_t end = 0; (end = mText.find('\n')) != std::string::npos;) {
            lines.push_back(mText.substr(0, end));
            mText.erase(0, end + 1);
        }
        return lines;
    }

private:
    std::string mText; // the beginning of a line
    // A program may be started without standard input, whose number the next file then gets.
    bool mHasEnded = ::fcntl(STDIN_FILENO, F_GETFD) < 0;
};
