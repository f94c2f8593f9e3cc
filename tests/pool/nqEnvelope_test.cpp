#include "pool/nqEnvelope.h"

#include "pool/include/nqPool.h"
#include "tests/common/frame.h"
#include "tests/common/random.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace {

using common::Bytes;
using common::bytes;
using common::text;
using nq::nqEnvelope;
using Reason = nq::nqAttempt::Reason;

const std::string digits = "00112233445566778899aabbccddeeff";
const std::string tag("\x00\x11\x22\x33\x44\x55\x66\x77\x88\x99\xaa\xbb\xcc\xdd\xee\xff", 16);

std::string_view view(const Bytes& message)
{
    return {message.data(), message.size()};
}

/// The pool's end and the worker's, which share a tag.
class Envelope : public testing::Test {
protected:
    const nqEnvelope envelope{digits};
    nqEnvelope::Exception exception;

    Bytes thrown(const std::string& message, std::string_view job) const
    {
        nq::nqAttempt told;
        told.reason = Reason::Exception;
        told.message = message;
        return envelope.exception(told, job);
    }

    /// What the pool is told of a failure that a worker has told it.
    nq::nqAttempt asTold(const nq::nqAttempt& told)
    {
        Bytes answer = envelope.exception(told, "the job");
        EXPECT_EQ(envelope.open(answer, exception), nqEnvelope::Answer::Exception);
        EXPECT_EQ(exception.job, bytes("the job"));
        return exception.told;
    }

    /// What a worker reads of a job that a pool has sent.
    std::string jobAsRead(std::string_view submitted)
    {
        Bytes sent = bytes(submitted);
        envelope.wrapJob(sent);
        std::string_view job;
        EXPECT_EQ(envelope.read(view(sent), job), nqEnvelope::Message::Job);
        return std::string(job);
    }

    std::string resultAsOpened(std::string_view made)
    {
        Bytes answer = bytes(made);
        envelope.wrapResult(answer);
        EXPECT_EQ(envelope.open(answer, exception), nqEnvelope::Answer::Result);
        return text(answer);
    }

    nqEnvelope::Answer opened(Bytes answer)
    {
        return envelope.open(answer, exception);
    }

    nqEnvelope::Message read(const Bytes& message)
    {
        std::string_view job;
        return envelope.read(view(message), job);
    }
};

TEST_F(Envelope, leavesAnOrdinaryJobAsItIs)
{
    Bytes job = bytes("a job");
    const char* const memory = job.data();
    envelope.wrapJob(job);
    EXPECT_EQ(job, bytes("a job"));
    EXPECT_EQ(job.data(), memory);
}

TEST_F(Envelope, leavesAnOrdinaryResultAsItIs)
{
    Bytes result = bytes("a result");
    const char* const memory = result.data();
    envelope.wrapResult(result);
    EXPECT_EQ(envelope.open(result, exception), nqEnvelope::Answer::Result);
    EXPECT_EQ(result, bytes("a result"));
    EXPECT_EQ(result.data(), memory);
}

TEST_F(Envelope, readsAnOrdinaryJobWithoutACopy)
{
    const Bytes sent = bytes("a job");
    std::string_view job;
    EXPECT_EQ(envelope.read(view(sent), job), nqEnvelope::Message::Job);
    EXPECT_EQ(job.data(), sent.data());
    EXPECT_EQ(job.size(), sent.size());
}

TEST_F(Envelope, sendsSomethingForAnEmptyJob)
{
    Bytes job;
    envelope.wrapJob(job);
    EXPECT_FALSE(job.empty());
    EXPECT_EQ(jobAsRead(""), "");
}

TEST_F(Envelope, sendsSomethingForAnEmptyResult)
{
    Bytes result;
    envelope.wrapResult(result);
    EXPECT_FALSE(result.empty());
    EXPECT_EQ(resultAsOpened(""), "");
}

TEST_F(Envelope, carriesJobsThatBeginWithTheTag)
{
    EXPECT_EQ(jobAsRead(tag), tag);
    EXPECT_EQ(jobAsRead(tag + "\1"), tag + "\1");
    EXPECT_EQ(jobAsRead(tag + tag + "and more"), tag + tag + "and more");
}

TEST_F(Envelope, carriesResultsThatBeginWithTheTag)
{
    EXPECT_EQ(resultAsOpened(tag), tag);
    EXPECT_EQ(resultAsOpened(tag + "\5"), tag + "\5");
    EXPECT_EQ(resultAsOpened(tag + tag + "and more"), tag + tag + "and more");
}

TEST_F(Envelope, takesAJobThatBeginsWithPartOfTheTagForAnOrdinaryOne)
{
    const std::string almost = tag.substr(0, 15);
    EXPECT_EQ(jobAsRead(almost), almost);
    EXPECT_EQ(resultAsOpened(almost + "x"), almost + "x");
}

TEST_F(Envelope, givesAWrappedJobBackAsItWas)
{
    for (const std::string& submitted : {std::string(), std::string("a job"), tag, tag + "\3"}) {
        Bytes job = bytes(submitted);
        envelope.wrapJob(job);
        envelope.unwrapJob(job);
        EXPECT_EQ(text(job), submitted);
    }
}

TEST_F(Envelope, tellsTheHiddenMessagesFromJobs)
{
    EXPECT_EQ(read(envelope.initialise()), nqEnvelope::Message::Initialise);
    EXPECT_EQ(read(envelope.leave()), nqEnvelope::Message::Leave);
}

TEST_F(Envelope, tellsTheHiddenAnswersFromResults)
{
    EXPECT_EQ(opened(envelope.initialised()), nqEnvelope::Answer::Initialised);
    EXPECT_EQ(opened(envelope.left()), nqEnvelope::Answer::Left);
}

TEST_F(Envelope, carriesAnExceptionWithTheJob)
{
    Bytes answer = thrown("no such page", "the job");
    EXPECT_EQ(envelope.open(answer, exception), nqEnvelope::Answer::Exception);
    EXPECT_EQ(exception.told.message, "no such page");
    EXPECT_EQ(exception.job, bytes("the job"));
    EXPECT_TRUE(answer.empty());
}

TEST_F(Envelope, carriesAnExceptionWithoutTextOfAnEmptyJob)
{
    EXPECT_EQ(opened(thrown("", "")), nqEnvelope::Answer::Exception);
    EXPECT_EQ(exception.told.message, "");
    EXPECT_EQ(exception.job, Bytes());
}

TEST_F(Envelope, carriesAnExceptionOfAJobThatBeginsWithTheTag)
{
    EXPECT_EQ(opened(thrown("no", tag + "\2")), nqEnvelope::Answer::Exception);
    EXPECT_EQ(text(exception.job), tag + "\2");
}

TEST_F(Envelope, cutsATextThatNobodyWouldRead)
{
    const std::string longText(100'000, 'x');
    EXPECT_EQ(opened(thrown(longText, "the job")), nqEnvelope::Answer::Exception);
    EXPECT_EQ(exception.told.message, longText.substr(0, 65'536));
    EXPECT_EQ(exception.job, bytes("the job"));
}

TEST_F(Envelope, carriesAllThatIsKnownOfAFailure)
{
    nq::nqAttempt told;
    told.reason = Reason::Crashed;
    told.message = "the converter was ended";
    told.exitStatus = -3;
    told.signal = 11;
    told.dumpedCore = true;
    told.peakMemory = std::uint64_t{1} << 40;
    const nq::nqAttempt read = asTold(told);
    EXPECT_TRUE(read.toldByWorker);
    EXPECT_EQ(read.reason, Reason::Crashed);
    EXPECT_EQ(read.message, "the converter was ended");
    EXPECT_EQ(read.exitStatus, -3);
    EXPECT_EQ(read.signal, 11);
    EXPECT_TRUE(read.dumpedCore);
    EXPECT_EQ(read.peakMemory, std::uint64_t{1} << 40);
}

TEST_F(Envelope, carriesNothingThatIsNotKnownOfAFailure)
{
    nq::nqAttempt told;
    told.reason = Reason::Timeout;
    const nq::nqAttempt read = asTold(told);
    EXPECT_EQ(read.reason, Reason::Timeout);
    EXPECT_EQ(read.message, "");
    EXPECT_EQ(read.exitStatus, std::nullopt);
    EXPECT_EQ(read.signal, std::nullopt);
    EXPECT_FALSE(read.dumpedCore);
    EXPECT_EQ(read.peakMemory, std::nullopt);
}

TEST_F(Envelope, carriesWhatAnExceptionKnowsBesidesItsText)
{
    nq::nqAttempt told;
    told.reason = Reason::Exception;
    told.exitStatus = 0;
    const nq::nqAttempt read = asTold(told);
    EXPECT_EQ(read.reason, Reason::Exception);
    EXPECT_EQ(read.exitStatus, 0);
}

TEST_F(Envelope, saysAnOrdinaryExceptionAsOlderPoolsKnowIt)
{
    constexpr char kindOfExceptions = 7;
    EXPECT_EQ(thrown("no", "job").at(tag.size()), kindOfExceptions);
    EXPECT_EQ(text(thrown("no", "job")).substr(tag.size() + 1), std::string("\2\0\0\0nojob", 9));
}

TEST_F(Envelope, takesAReasonThatNoWorkerCanKnowForAnException)
{
    for (const int reason : {0, 5, 7, 8, 9, 10, 11, 12, -1, 1 << 30}) {
        nq::nqAttempt told;
        told.reason = static_cast<Reason>(reason);
        EXPECT_EQ(asTold(told).reason, Reason::Exception) << reason;
    }
}

TEST_F(Envelope, findsOutAWorkerThatSendsBackWhatItGets)
{
    Bytes emptyJob;
    envelope.wrapJob(emptyJob);
    Bytes escapedJob = bytes(tag);
    envelope.wrapJob(escapedJob);
    for (const Bytes& message : {envelope.initialise(), envelope.leave(), emptyJob, escapedJob})
        EXPECT_EQ(opened(message), nqEnvelope::Answer::Unknown);
}

TEST_F(Envelope, findsOutAnAnswerThatIsSentAsAJob)
{
    Bytes emptyResult;
    envelope.wrapResult(emptyResult);
    for (const Bytes& answer :
         {envelope.initialised(), envelope.left(), thrown("no", "job"), emptyResult})
        EXPECT_EQ(read(answer), nqEnvelope::Message::Unknown);
}

TEST_F(Envelope, leavesAnAnswerAloneThatMakesNoSense)
{
    Bytes answer = bytes(tag + "\x7f and more");
    EXPECT_EQ(envelope.open(answer, exception), nqEnvelope::Answer::Unknown);
    EXPECT_EQ(text(answer), tag + "\x7f and more");
}

TEST_F(Envelope, makesNoSenseOfTheTagAlone)
{
    EXPECT_EQ(opened(bytes(tag)), nqEnvelope::Answer::Unknown);
    EXPECT_EQ(read(bytes(tag)), nqEnvelope::Message::Unknown);
}

TEST_F(Envelope, makesNoSenseOfAnAnswerWithMoreBehindIt)
{
    Bytes emptyResult;
    envelope.wrapResult(emptyResult);
    for (Bytes answer : {envelope.initialised(), envelope.left(), emptyResult}) {
        answer.push_back('x');
        EXPECT_EQ(opened(answer), nqEnvelope::Answer::Unknown);
    }
}

TEST_F(Envelope, makesNoSenseOfAnEscapedResultWithoutNeed)
{
    Bytes answer = bytes(tag);
    envelope.wrapResult(answer);
    answer.resize(tag.size() + 1);
    common::append(answer, "an ordinary result");
    EXPECT_EQ(opened(answer), nqEnvelope::Answer::Unknown);
}

TEST_F(Envelope, makesNoSenseOfAnExceptionThatIsCutShort)
{
    const Bytes whole = thrown("no such page", "");
    for (std::size_t size = tag.size(); size < whole.size(); ++size) {
        Bytes cut = whole;
        cut.resize(size);
        EXPECT_EQ(opened(cut), nqEnvelope::Answer::Unknown) << size << " bytes";
    }
}

TEST_F(Envelope, makesNoSenseOfAFailureThatIsCutShort)
{
    nq::nqAttempt told;
    told.reason = Reason::Exited;
    told.message = "no such page";
    const Bytes whole = envelope.exception(told, "");
    for (std::size_t size = tag.size(); size < whole.size(); ++size) {
        Bytes cut = whole;
        cut.resize(size);
        EXPECT_EQ(opened(cut), nqEnvelope::Answer::Unknown) << size << " bytes";
    }
}

TEST_F(Envelope, makesNoSenseOfATextThatIsSaidToBeHuge)
{
    Bytes answer = thrown("no such page", "the job");
    for (std::size_t byte = 0; byte < 4; ++byte)
        answer[tag.size() + 1 + byte] = '\xff';
    EXPECT_EQ(opened(answer), nqEnvelope::Answer::Unknown);
}

TEST_F(Envelope, getsNothingOutOfAnAnswerThatIsNotInIt)
{
    common::SeededRandom random(1);
    for (int round = 0; round < 10'000; ++round) {
        Bytes answer = bytes(tag);
        common::append(answer, Bytes{static_cast<char>(random.below(16))});
        common::append(answer, random.bytes(random.index(64)));
        const std::size_t size = answer.size();
        if (envelope.open(answer, exception) == nqEnvelope::Answer::Exception) {
            EXPECT_LT(exception.told.message.size() + exception.job.size(), size);
        }
        EXPECT_LE(answer.size(), size);
    }
}

TEST_F(Envelope, takesAnotherPoolsMessageForAJob)
{
    const nqEnvelope other("ff112233445566778899aabbccddeeff");
    EXPECT_EQ(read(other.leave()), nqEnvelope::Message::Job);
    EXPECT_EQ(opened(other.left()), nqEnvelope::Answer::Result);
}

TEST(EnvelopeTag, has32HexadecimalDigits)
{
    const std::string fresh = nqEnvelope::freshTag();
    EXPECT_EQ(fresh.size(), 32U);
    for (const char digit : fresh)
        EXPECT_TRUE(std::isxdigit(static_cast<unsigned char>(digit))) << fresh;
    EXPECT_NO_THROW(nqEnvelope{fresh});
}

TEST(EnvelopeTag, isAnotherOneEachTime)
{
    std::set<std::string> tags;
    for (int round = 0; round < 1'000; ++round)
        tags.insert(nqEnvelope::freshTag());
    EXPECT_EQ(tags.size(), 1'000U);
}

TEST(EnvelopeTag, isRefusedInAnotherForm)
{
    EXPECT_THROW(nqEnvelope(""), nq::nqPoolError);
    EXPECT_THROW(nqEnvelope(digits.substr(2)), nq::nqPoolError);
    EXPECT_THROW(nqEnvelope(digits + "00"), nq::nqPoolError);
    EXPECT_THROW(nqEnvelope("0011223344556677889gaabbccddeeff"), nq::nqPoolError);
    EXPECT_THROW(nqEnvelope("-1112233445566778899aabbccddeeff"), nq::nqPoolError);
}

} // namespace
