#include "examples/contact_sheet/report.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace {

using namespace sheet;
using nlohmann::json;

std::vector<Entry> oneGoodTwoBad()
{
    return {
        {"a.jpg", DecodedPicture{{4000, 3000}, Picture({1, 1}, Colour{})}},
        {"b.jpg", Failure{FailureKind::timeout, "too slow"}},
        {"c\xff.jpg", Failure{FailureKind::crash, "died"}}};
}

TEST(Report, describesEachFileInItsOrder)
{
    const json report = json::parse(reportText(oneGoodTwoBad(), {}));
    const json& files = report["files"];
    ASSERT_EQ(files.size(), 3u);
    EXPECT_EQ(
        files[0], json({{"path", "a.jpg"}, {"status", "ok"}, {"width", 4000}, {"height", 3000}}));
    EXPECT_EQ(files[1], json({{"path", "b.jpg"}, {"status", "time-out"}, {"reason", "too slow"}}));
    EXPECT_EQ(files[2]["path"], "c\uFFFD.jpg");
}

TEST(Report, countsByStatus)
{
    const json report = json::parse(reportText(oneGoodTwoBad(), {}));
    EXPECT_EQ(report["counts"], json({{"ok", 1}, {"time-out", 1}, {"crash", 1}}));
}

TEST(Report, tellsTheFiguresOfTheRun)
{
    const json report =
        json::parse(reportText({}, {"out.png", 4, std::chrono::duration<double>(1.5)}));
    EXPECT_EQ(report["picture"], "out.png");
    EXPECT_EQ(report["workers"], 4);
    EXPECT_EQ(report["milliseconds"], 1500);
    EXPECT_TRUE(report["files"].empty());
}

TEST(Report, tellsAFileWithoutAnyOutcome)
{
    const json report = json::parse(reportText({{"a.jpg", Unresolved{}}}, {}));
    EXPECT_EQ(report["files"][0]["status"], "not-done");
}

} // namespace
