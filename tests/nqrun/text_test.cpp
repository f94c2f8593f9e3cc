#include "tools/nqrun/text.h"

#include <gtest/gtest.h>

namespace nqrun {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;

TEST(ShellQuoted, leavesPlainWordsAsTheyAre)
{
    EXPECT_EQ(shellQuoted("thumbs/a-1_b.jpg"), "thumbs/a-1_b.jpg");
}

TEST(ShellQuoted, protectsEveryOtherByte)
{
    EXPECT_EQ(shellQuoted(""), "''");
    EXPECT_EQ(shellQuoted("a b"), "'a b'");
    EXPECT_EQ(shellQuoted("it's"), "'it'\\''s'");
    EXPECT_EQ(shellQuoted("$(x)\n"), "'$(x)\n'");
    EXPECT_EQ(shellQuoted("~"), "'~'");
}

TEST(Shown, keepsTextOfAnyLanguage)
{
    EXPECT_EQ(shown("żółw 亀"), "żółw 亀");
}

TEST(Shown, escapesWhatWouldMoveTheCursorOrIsNoText)
{
    EXPECT_EQ(shown("a\nb\tc\x1b[2J"), "a\\nb\\tc\\x1b[2J");
    EXPECT_EQ(shown("\xff\xc0\xaf"), "\\xff\\xc0\\xaf");
    EXPECT_EQ(
        shown("\xe2\x80\xae"
              "fdp.exe"),
        "\\xe2\\x80\\xae"
        "fdp.exe")
        << "text turned around";
}

TEST(Shown, endsInAnEllipsisWhereItIsCut)
{
    EXPECT_EQ(shown("0123456789", 10), "0123456789");
    EXPECT_EQ(shown("0123456789a", 10), "0123456...");
    EXPECT_EQ(shown("0123456789a", 2), "..");
}

TEST(Shown, countsWideCharactersTwice)
{
    EXPECT_EQ(columnsOf("亀a"), 3U);
    EXPECT_EQ(shown("亀亀亀亀", 7), "亀亀...");
}

TEST(IsUtf8, refusesOverlongFormsAndSurrogates)
{
    EXPECT_TRUE(isUtf8("żółw 亀 \xf0\x9f\x90\xa2"));
    EXPECT_FALSE(isUtf8("\xc0\xaf"));
    EXPECT_FALSE(isUtf8("\xed\xa0\x80"));
    EXPECT_FALSE(isUtf8("\xf4\x90\x80\x80"));
    EXPECT_FALSE(isUtf8("a\xe4"));
}

TEST(ParseDuration, readsFractionsAndUnits)
{
    EXPECT_EQ(parseDuration("0.5"), milliseconds(500));
    EXPECT_EQ(parseDuration("250ms"), milliseconds(250));
    EXPECT_EQ(parseDuration("30s"), seconds(30));
    EXPECT_EQ(parseDuration("1.5m"), seconds(90));
    EXPECT_EQ(parseDuration("1h"), hours(1));
    EXPECT_EQ(parseDuration("2d"), hours(48));
}

TEST(ParseDuration, refusesEverythingElse)
{
    for (const char* const text :
         {"", "0", "-1", "1e3", "0x10", "5 s", "s", ".", "1.2.3", "3x", "1e99", "inf", "nan"})
        EXPECT_FALSE(parseDuration(text)) << text;
}

TEST(ParseSize, readsUnitsOf1024)
{
    EXPECT_EQ(parseSize("100"), 100U);
    EXPECT_EQ(parseSize("64K"), 65536U);
    EXPECT_EQ(parseSize("1.5m"), 1572864U);
    EXPECT_EQ(parseSize("2GB"), 2147483648U);
}

TEST(ParseSize, refusesEverythingElse)
{
    for (const char* const text : {"", "0", "-1", "1 G", "G", "2GiB", "5X", "1e30", "99999999999T"})
        EXPECT_FALSE(parseSize(text)) << text;
}

TEST(ParseNumber, refusesSignsBlanksAndOverflow)
{
    EXPECT_EQ(parseNumber("18446744073709551615"), 18446744073709551615U);
    for (const char* const text : {"", "-1", "+1", " 1", "1 ", "18446744073709551616", "1.0"})
        EXPECT_FALSE(parseNumber(text)) << text;
}

TEST(DurationText, usesTheUnitThatPeopleWould)
{
    EXPECT_EQ(durationText(milliseconds(5)), "0.005 s");
    EXPECT_EQ(durationText(milliseconds(2'340)), "2.3 s");
    EXPECT_EQ(durationText(seconds(42)), "42 s");
    EXPECT_EQ(durationText(seconds(125)), "2 min 5 s");
    EXPECT_EQ(durationText(minutes(192)), "3 h 12 min");
    EXPECT_EQ(durationText(hours(50)), "2 d 2 h");
}

TEST(SizeText, usesTheUnitThatPeopleWould)
{
    EXPECT_EQ(sizeText(812), "812 B");
    EXPECT_EQ(sizeText(2254857830), "2.1 GB");
    EXPECT_EQ(sizeText(std::uint64_t{131} << 20), "131 MB");
}

TEST(LastLines, beginWithAWholeLineWhereThatIsPossible)
{
    EXPECT_EQ(lastLines("one\ntwo\nthree\n", 100), "one\ntwo\nthree");
    EXPECT_EQ(lastLines("one\ntwo\nthree\n", 8), "three");
    EXPECT_EQ(lastLines("0123456789", 4), "6789");
    EXPECT_EQ(lastLines("żółw", 4), "łw") << "half a character is left out";
}

} // namespace
} // namespace nqrun
