#include "pool/nqTexts.h"
#include "tests/unit/testSupport.h"

#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

namespace {

using std::chrono::hours;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;

TEST(SizeText, hasAUnitThatSuitsThePeopleWhoReadIt)
{
    const std::vector<std::pair<std::uint64_t, std::string>> examples{
        {0, "0 B"},
        {1023, "1023 B"},
        {1024, "1 KB"},
        {1536, "1.5 KB"},
        {(1 << 20) - 1, "1023 KB"},
        {1 << 20, "1 MB"},
        {(99ULL << 20) + (1 << 19), "99.5 MB"},
        {(257ULL << 20) + (1 << 19), "257 MB"},
        {2'050'000'000, "1.9 GB"},
        {1ULL << 40, "1 TB"},
        {1ULL << 50, "1 PB"},
        {UINT64_MAX, "15.9 EB"}};
    for (const auto& [bytes, text] : examples)
        EXPECT_EQ(nq::sizeText(bytes), text) << bytes;
}

TEST(DurationText, hasUnitsThatSuitThePeopleWhoReadIt)
{
    const std::vector<std::pair<microseconds, std::string>> examples{
        {microseconds(-1), "0 ms"},
        {microseconds(99), "0 ms"},
        {microseconds(450), "0.4 ms"},
        {microseconds(9'999), "9.9 ms"},
        {milliseconds(10), "10 ms"},
        {microseconds(999'999), "999 ms"},
        {seconds(1), "1 s"},
        {milliseconds(1'290), "1.2 s"},
        {milliseconds(59'999), "59.9 s"},
        {minutes(1), "1 min"},
        {seconds(125), "2 min 5 s"},
        {minutes(60), "1 h"},
        {minutes(192), "3 h 12 min"},
        {hours(24), "1 d"},
        {hours(53), "2 d 5 h"}};
    for (const auto& [duration, text] : examples)
        EXPECT_EQ(nq::durationText(duration), text) << duration.count();
}

TEST(SizeText, isTheSameUnderAGroupingGlobalLocale)
{
    const support::GroupingGlobalLocale locale;
    EXPECT_EQ(nq::sizeText(1023ULL << 20), "1023 MB");
    EXPECT_EQ(nq::sizeText(1536), "1.5 KB");
}

TEST(OneLine, keepsAPlainText)
{
    EXPECT_EQ(nq::oneLine("plain text", 300), "plain text");
}

TEST(OneLine, hasNoLineBreaksAndOtherControlCharacters)
{
    const std::string text{"a\nb\r\tc\x1B[31md\0e\x7F.", 16};
    EXPECT_EQ(nq::oneLine(text, 300), "a b  c [31md e .");
}

TEST(OneLine, hasNoBlanksAroundIt)
{
    EXPECT_EQ(nq::oneLine("\n  text \n", 300), "text");
    EXPECT_EQ(nq::oneLine(" \n ", 300), "");
}

TEST(OneLine, isCutAtTheLimit)
{
    EXPECT_EQ(nq::oneLine("0123456789", 10), "0123456789");
    EXPECT_EQ(nq::oneLine("0123456789a", 10), "0123456789...");
}

TEST(OneLine, isNeverCutInsideACharacter)
{
    EXPECT_EQ(nq::oneLine("012\xE2\x82\xAC", 5), "012...");
    EXPECT_EQ(nq::oneLine("012\xE2\x82\xAC", 6), "012\xE2\x82\xAC");
}

TEST(OneLine, keepsCharactersOfUtf8)
{
    EXPECT_EQ(nq::oneLine("\xE2\x82\xAC", 300), "\xE2\x82\xAC");
}

TEST(LastLine, isTheLastOneThatIsNotBlank)
{
    EXPECT_EQ(nq::lastLine("first\n  what():  boom \n\n \n"), "what():  boom");
    EXPECT_EQ(nq::lastLine("only"), "only");
    EXPECT_EQ(nq::lastLine("progress 1\rprogress 2"), "progress 2");
    EXPECT_EQ(nq::lastLine(" \n\n"), "");
    EXPECT_EQ(nq::lastLine(""), "");
}

} // namespace
