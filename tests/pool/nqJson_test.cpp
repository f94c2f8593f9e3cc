#include "pool/nqJson.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using nq::nqJson;

nqJson parsed(const std::string& text)
{
    const std::optional<nqJson> value = nqJson::parse(text);
    EXPECT_TRUE(value) << text;
    return value.value_or(nqJson());
}

TEST(Json, readsNumbers)
{
    EXPECT_EQ(parsed("18446744073709551615").count(), 18446744073709551615ULL);
    EXPECT_DOUBLE_EQ(parsed("12.375").number(), 12.375);
    EXPECT_DOUBLE_EQ(parsed("-0.5").number(), -0.5);
    EXPECT_EQ(parsed("-3").count(), 0U);
}

TEST(Json, readsTextsWithEscapes)
{
    EXPECT_EQ(parsed(R"("a\"\\\/\n\u0041\u00fc\u20ac")").text(), "a\"\\/\nA\u00FC\u20AC");
}

TEST(Json, readsHalfOfAPairOfSurrogatesAsNoCharacter)
{
    EXPECT_EQ(parsed(R"("\ud800")").text(), "\uFFFD");
}

TEST(Json, readsNestedValues)
{
    const nqJson value = parsed(R"( { "a" : [ 1 , {"b": "c"} ], "d": {}, "e": [] } )");
    EXPECT_TRUE(value.isObject());
    ASSERT_EQ(value["a"].elements().size(), 2U);
    EXPECT_EQ(value["a"].elements()[1]["b"].text(), "c");
    EXPECT_TRUE(value["e"].elements().empty());
}

TEST(Json, readsWhatIsMissingAsNothing)
{
    const nqJson value = parsed(R"({"a": null, "b": true, "c": "5"})");
    EXPECT_EQ(value["z"]["y"].text(), "");
    EXPECT_EQ(value["a"].count(), 0U);
    EXPECT_FALSE(value["c"].isNumber());
}

TEST(Json, refusesWhatIsNone)
{
    for (const char* const text :
         {"",
          "{",
          "{\"a\"}",
          "{\"a\":}",
          "[1,]",
          "[1 2]",
          "\"a",
          "\"\\x\"",
          "\"\\u00g0\"",
          "1x",
          "nul",
          "{} {}",
          "-",
          "."})
        EXPECT_FALSE(nqJson::parse(text)) << text;
}

TEST(Json, refusesEachPartOfAnObject)
{
    const std::string whole = R"({"a": [1.5, "b\n\u0041"], "c": {"d": null}})";
    EXPECT_TRUE(nqJson::parse(whole));
    for (std::size_t size = 0; size < whole.size(); ++size)
        EXPECT_FALSE(nqJson::parse(whole.substr(0, size))) << size;
}

TEST(Json, refusesWhatIsNestedTooDeeply)
{
    EXPECT_FALSE(nqJson::parse(std::string(100'000, '[')));
}

} // namespace
