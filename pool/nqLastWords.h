#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace nq {

/// The end of what one worker prints on its standard error, for the outcome of its job.
///
/// What is read goes on to the host's standard error as well, if it is to be forwarded. A reader
/// there that does not keep up gets a second; what it cannot take then is dropped, and nothing
/// waits for it again before it reads. A host without standard error does not matter.
class nqLastWords {
public:
    /// Keeps `limit` bytes at most.
    nqLastWords(std::size_t limit, bool isForwarded);
    ~nqLastWords();
    nqLastWords(const nqLastWords&) = delete;
    nqLastWords& operator=(const nqLastWords&) = delete;

    /// Takes over the reading end of a pipe, non-blocking and close-on-exec, and closes a former
    /// one. What was read from that stays.
    void watch(int descriptor);

    /// To wait for; -1: none.
    int descriptor() const;

    /// Takes all that is there, at most 1 MiB in one call, so that a worker that never stops
    /// printing does not keep the pool. Closes the descriptor at the end of the stream.
    void read();

    /// Forgets what was read so far: the next job begins.
    void forget();

    /// The last `limit` bytes of what was read. When there was more, they begin with a line if one
    /// begins in their first quarter, else with a whole character of UTF-8.
    std::string text() const;

private:
    void keep(std::string_view bytes);
    void forward(std::string_view bytes);

    std::size_t mLimit;
    bool mIsForwarded;
    bool mIsStuck = false; // the host's standard error took nothing for as long as it was given
    int mDescriptor = -1;
    std::string mRead; // the end of it: more than twice the limit never stays
};

} // namespace nq
