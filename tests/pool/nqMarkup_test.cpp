#include "pool/nqMarkup.h"

#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <string_view>

namespace {

using namespace std::chrono_literals;

std::string json(std::string_view text)
{
    std::string out;
    nq::appendJsonText(out, text);
    return out;
}

std::string xml(std::string_view text)
{
    std::string out;
    nq::appendXmlText(out, text);
    return out;
}

std::string metric(std::string_view text)
{
    std::string out;
    nq::appendMetricText(out, text);
    return out;
}

std::string decimal(std::int64_t number, unsigned digits)
{
    std::string out;
    nq::appendDecimal(out, number, digits);
    return out;
}

TEST(Markup, escapesWhatJsonForbids)
{
    EXPECT_EQ(json("a\"b\\c\n\t\x01\x7F"), "\"a\\\"b\\\\c\\u000a\\u0009\\u0001\\u007f\"");
}

TEST(Markup, escapesWhatXmlForbids)
{
    EXPECT_EQ(xml("<a href=\"x\">&</a>"), "&lt;a href=&quot;x&quot;&gt;&amp;&lt;/a&gt;");
}

TEST(Markup, showsControlCharactersInXmlByTheirPictures)
{
    EXPECT_EQ(xml(std::string_view("\0\n\x7F", 3)), "\u2400\u240A\u2421");
}

TEST(Markup, escapesWhatMetricsForbid)
{
    EXPECT_EQ(metric("a\"b\\c\nd"), "\"a\\\"b\\\\c\\nd\"");
}

TEST(Markup, keepsCharactersOfAllLengths)
{
    const std::string text = "a\u00FC\u20AC\U0001F600";
    EXPECT_EQ(json(text), '"' + text + '"');
    EXPECT_EQ(xml(text), text);
}

TEST(Markup, replacesEachByteThatIsNoUtf8)
{
    EXPECT_EQ(xml("a\xFF\xC3z"), "a\uFFFD\uFFFDz");
    EXPECT_EQ(xml("\xC0\xAF"), "\uFFFD\uFFFD") << "a detour";
    EXPECT_EQ(xml("\xE0\x80\xAF"), "\uFFFD\uFFFD\uFFFD") << "a longer one";
    EXPECT_EQ(xml("\xED\xA0\x80"), "\uFFFD\uFFFD\uFFFD") << "half of a pair of surrogates";
    EXPECT_EQ(xml("\xF4\x90\x80\x80"), "\uFFFD\uFFFD\uFFFD\uFFFD") << "beyond the last one";
    EXPECT_EQ(xml("\xE2\x82"), "\uFFFD\uFFFD") << "cut";
}

TEST(Markup, replacesCharactersThatXmlHasNone)
{
    EXPECT_EQ(xml("\xEF\xBF\xBE\xEF\xBF\xBF"), "\uFFFD\uFFFD");
}

TEST(Markup, shortensBetweenTwoCharacters)
{
    EXPECT_EQ(nq::shortened("abc", 3), "abc");
    EXPECT_EQ(nq::shortened("abcd", 3), "abc\u2026");
    EXPECT_EQ(nq::shortened("ab\u20AC\u20AC", 4), "ab\u2026");
}

TEST(Markup, shortensWhatIsNoUtf8)
{
    EXPECT_EQ(nq::shortened(std::string(10, '\xFF'), 4), "\uFFFD\u2026");
}

TEST(Markup, writesDecimalsWithoutTrailingZeros)
{
    EXPECT_EQ(decimal(1250, 3), "1.25");
    EXPECT_EQ(decimal(1000, 3), "1");
    EXPECT_EQ(decimal(5, 3), "0.005");
    EXPECT_EQ(decimal(-50, 2), "-0.5");
    EXPECT_EQ(decimal(0, 6), "0");
    EXPECT_EQ(decimal(std::numeric_limits<std::int64_t>::min(), 0), "-9223372036854775808");
}

TEST(Markup, writesTimesInSeconds)
{
    std::string out;
    nq::appendSeconds(out, 90'000'001us);
    EXPECT_EQ(out, "90.000001");
}

} // namespace
