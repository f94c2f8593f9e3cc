#include "pool/nqLastWords.h"
#include "tests/common/descriptors.h"
#include "tests/common/waiting.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <unistd.h>

namespace {

using common::Descriptor;
using nq::nqLastWords;

constexpr std::size_t mebibyte = std::size_t{1} << 20;

/// Both ends non-blocking, as the library hands out the reading one.
struct Pipe {
    Pipe()
    {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
        mReading = Descriptor(ends[0]);
        mWriting = Descriptor(ends[1]);
    }

    void print(std::string_view text) const
    {
        EXPECT_EQ(::write(mWriting.get(), text.data(), text.size()), ssize_t(text.size()));
    }

    /// As much as the pipe holds; returns how much that is.
    std::size_t fill() const
    {
        const std::string page(4096, 'f');
        std::size_t total = 0;
        while (::write(mWriting.get(), page.data(), page.size()) == ssize_t(page.size()))
            total += page.size();
        return total;
    }

    /// For an owner that closes it itself.
    int releaseReading()
    {
        const int number = ::fcntl(mReading.get(), F_DUPFD_CLOEXEC, 0);
        mReading.close();
        return number;
    }

    Descriptor mReading;
    Descriptor mWriting;
};

/// The last words of a worker that prints to a pipe.
class LastWords : public testing::Test {
protected:
    void print(std::string_view text)
    {
        mPipe.print(text);
        mWords.read();
    }

    Pipe mPipe;
    nqLastWords mWords{16, false};

    LastWords()
    {
        mWords.watch(mPipe.releaseReading());
    }
};

TEST_F(LastWords, areWhatTheWorkerHasPrinted)
{
    print("one\n");
    print("two");
    EXPECT_EQ(mWords.text(), "one\ntwo");
}

TEST_F(LastWords, areEmptyBeforeAnythingIsPrinted)
{
    mWords.read();
    EXPECT_EQ(mWords.text(), "");
}

TEST_F(LastWords, areOfOneJobAtATime)
{
    print("the first job");
    mWords.forget();
    print("the next");
    EXPECT_EQ(mWords.text(), "the next");
}

TEST_F(LastWords, areAllThereUpToTheLimit)
{
    print("0123456789abcdef");
    EXPECT_EQ(mWords.text(), "0123456789abcdef");
}

TEST_F(LastWords, areTheEndOfWhatIsLongerThanTheLimit)
{
    print("0123456789abcdefg");
    EXPECT_EQ(mWords.text(), "123456789abcdefg");
}

TEST_F(LastWords, areTheEndOfManyPiecesToo)
{
    for (int piece = 0; piece < 100; ++piece)
        print("0123456789");
    EXPECT_EQ(mWords.text(), "4567890123456789");
}

TEST_F(LastWords, beginWithALineThatBeginsNearTheCut)
{
    print("dropped\nkept line one"); // the limit is behind "ped"
    EXPECT_EQ(mWords.text(), "kept line one");
}

TEST_F(LastWords, keepALineThatBeginsExactlyAtTheCut)
{
    print("dropped\n123\n567890123456");
    EXPECT_EQ(mWords.text(), "123\n567890123456");
}

TEST_F(LastWords, doNotLoseMuchToTheSearchForALine)
{
    print("dropped, 0123456789abc\nxy");
    EXPECT_EQ(mWords.text(), "0123456789abc\nxy");
}

TEST_F(LastWords, doNotBeginInTheMiddleOfACharacter)
{
    print("\xF0\x9F\x98\x80 0123456789abc"); // four bytes, of which two are cut
    EXPECT_EQ(mWords.text(), " 0123456789abc");
}

TEST_F(LastWords, arePassedOnAsTheyAreWhenTheyAreNoUtf8)
{
    print(std::string(20, '\x80'));
    EXPECT_EQ(mWords.text(), std::string(13, '\x80'));
}

TEST_F(LastWords, areReadToTheEndOfADeadWorker)
{
    mPipe.print("last");
    mPipe.mWriting.close();
    mWords.read();
    EXPECT_EQ(mWords.text(), "last");
    EXPECT_EQ(mWords.descriptor(), -1);
}

TEST_F(LastWords, stayOpenWhileTheWorkerMayPrint)
{
    print("words");
    EXPECT_GE(mWords.descriptor(), 0);
}

TEST(LastWordsOfNobody, areEmpty)
{
    nqLastWords words(16, false);
    words.read();
    EXPECT_EQ(words.descriptor(), -1);
    EXPECT_EQ(words.text(), "");
}

TEST(LastWordsWithoutRoom, areReadButNotKept)
{
    Pipe pipe;
    nqLastWords words(0, false);
    words.watch(pipe.releaseReading());
    pipe.print("nobody wants this");
    words.read();
    EXPECT_EQ(words.text(), "");
    pipe.mWriting.close();
    words.read();
    EXPECT_EQ(words.descriptor(), -1);
}

TEST(LastWordsOfTwoWorkers, closeTheFormerPipeAndKeepItsWords)
{
    Pipe former;
    Pipe next;
    nqLastWords words(16, false);
    words.watch(former.releaseReading());
    former.print("before ");
    words.read();
    const int formerNumber = words.descriptor();
    words.watch(next.releaseReading());
    EXPECT_EQ(::fcntl(formerNumber, F_GETFD), -1);
    next.print("after");
    words.read();
    EXPECT_EQ(words.text(), "before after");
}

TEST(LastWordsOfAWorkerThatNeverStops, takeAMebibyteAtATime)
{
    const Descriptor endless(::open("/dev/zero", O_RDONLY | O_CLOEXEC));
    nqLastWords words(2 * mebibyte, false);
    words.watch(::fcntl(endless.get(), F_DUPFD_CLOEXEC, 0));
    words.read();
    EXPECT_EQ(words.text().size(), mebibyte);
}

TEST(LastWordsAtTheEnd, leaveNoDescriptorBehind)
{
    const std::set<int> before = common::openDescriptorNumbers();
    {
        Pipe pipe;
        nqLastWords words(16, false);
        words.watch(pipe.releaseReading());
    }
    EXPECT_EQ(common::openDescriptorNumbers(), before);
}

/// Lets standard error be something else for as long as it lives.
class StandardErrorIs {
public:
    explicit StandardErrorIs(int replacement)
        : mOriginal(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1))
    {
        ::dup2(replacement, STDERR_FILENO);
    }
    ~StandardErrorIs()
    {
        ::dup2(mOriginal.get(), STDERR_FILENO);
    }
    StandardErrorIs(const StandardErrorIs&) = delete;
    StandardErrorIs& operator=(const StandardErrorIs&) = delete;

private:
    Descriptor mOriginal;
};

/// Forwarded from a worker's pipe to a pipe in place of the host's standard error.
class ForwardedWords : public testing::Test {
protected:
    void print(std::string_view text)
    {
        mWorker.print(text);
        const StandardErrorIs replaced(mHost.mWriting.get());
        mWords.read();
    }

    Pipe mWorker;
    Pipe mHost;
    nqLastWords mWords{16, true};

    ForwardedWords()
    {
        mWords.watch(mWorker.releaseReading());
    }
};

TEST_F(ForwardedWords, goToStandardErrorAsTheyAre)
{
    print("one\ntw");
    print("o");
    EXPECT_EQ(common::readAll(mHost.mReading.get()), "one\ntwo");
    EXPECT_EQ(mWords.text(), "one\ntwo");
}

TEST_F(ForwardedWords, areForwardedWholeThoughOnlyTheirEndIsKept)
{
    const std::string text(60'000, 'x');
    print(text);
    EXPECT_EQ(common::readAll(mHost.mReading.get()), text);
    EXPECT_EQ(mWords.text(), std::string(16, 'x'));
}

TEST_F(ForwardedWords, raiseNoSignalWithoutAReader)
{
    mHost.mReading.close();
    print("words");
    EXPECT_EQ(mWords.text(), "words");
    sigset_t pending;
    ::sigpending(&pending);
    EXPECT_EQ(::sigismember(&pending, SIGPIPE), 0);
}

TEST_F(ForwardedWords, areDroppedWhenTheReaderDoesNotKeepUp)
{
    const std::size_t filled = mHost.fill();
    // A blocking one, as standard error usually is, would block the pool for ever.
    ::fcntl(mHost.mWriting.get(), F_SETFL, 0);
    print("dropped");
    print("dropped as well");
    EXPECT_EQ(common::readAll(mHost.mReading.get()), std::string(filled, 'f'));
}

TEST_F(ForwardedWords, goOnOnceTheReaderReadsAgain)
{
    mHost.fill();
    print("dropped");
    common::readAll(mHost.mReading.get());
    print("heard");
    EXPECT_EQ(common::readAll(mHost.mReading.get()), "heard");
}

TEST_F(ForwardedWords, areKeptByAHostWithoutStandardError)
{
    mWorker.print("words");
    const StandardErrorIs restored(mHost.mWriting.get());
    ::close(STDERR_FILENO);
    mWords.read();
    EXPECT_EQ(mWords.text(), "words");
}

} // namespace
