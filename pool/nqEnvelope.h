#pragma once

#include "nqOutcome.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace nq {

/// What a pool and a worker of runAsWorker() say to each other beyond plain bytes.
///
/// A job and a result travel as they are; not a byte is added, and nothing is copied. Only what
/// plain bytes cannot say is marked: it begins with the tag, 16 random bytes that a pool makes once
/// and hands to its workers, and one byte that says what it is. The tag is no secret. It only makes
/// sure that no job or result begins with it by chance, and one that does is escaped.
///
/// A worker may send anything. What it sends is looked at, never trusted, and costs no memory
/// beyond its own size.
class nqEnvelope {
public:
    /// 32 hexadecimal digits. Throws nqPoolError when the kernel has no random bytes.
    static std::string freshTag();

    /// Whether `text` has the form of freshTag().
    static bool isTag(std::string_view text);

    /// Throws nqPoolError when `tag` is none.
    explicit nqEnvelope(const std::string& tag);

    /// @name The pool's side
    /// @{

    /// What a worker's answer is.
    enum class Answer {
        Result,      ///< of a job
        Exception,   ///< the job's function has thrown
        Initialised, ///< to initialise()
        Left,        ///< to leave()
        Unknown      ///< begins with the tag and makes no sense
    };

    /// What an answer of this kind says.
    struct Exception {
        nqAttempt told;        ///< as failureOf() has made it, with no other reason than its ones
        std::vector<char> job; ///< as it was before wrapJob()
    };

    /// Marks an empty job, and one that begins with the tag.
    void wrapJob(std::vector<char>& job) const;

    /// Takes back what wrapJob() did.
    void unwrapJob(std::vector<char>& job) const;

    /// The first message to each worker, which makes its work.
    std::vector<char> initialise() const;

    /// The last one, after which it destroys its work, answers and ends.
    std::vector<char> leave() const;

    /// Turns `answer` into the plain result. Of an exception, `answer` is left empty and
    /// `exception` is filled; of the other kinds, both are left alone.
    Answer open(std::vector<char>& answer, Exception& exception) const;

    /// @}
    /// @name The worker's side
    /// @{

    /// What a message is.
    enum class Message {
        Job,
        Initialise,
        Leave,
        Unknown ///< begins with the tag and makes no sense
    };

    /// `job` is set to the job's bytes, a part of `message`; to none of another kind.
    Message read(std::string_view message, std::string_view& job) const;

    /// Marks an empty result, and one that begins with the tag.
    void wrapResult(std::vector<char>& result) const;

    /// Of what failureOf() has returned.
    std::vector<char> exception(const nqAttempt& told, std::string_view job) const;
    std::vector<char> initialised() const;
    std::vector<char> left() const;

    /// @}

private:
    enum class Kind : char;

    bool isMarked(std::string_view bytes) const;
    std::vector<char> marked(Kind kind) const;
    void wrap(std::vector<char>& bytes, Kind ofEmpty, Kind ofEscaped) const;

    std::string mTag; // its bytes, not its digits
};

} // namespace nq
