#include "include/nqSchedulerAPIVersion.h"

#include <gtest/gtest.h>

#include <string>

namespace {

namespace Version = nqSchedulerAPI::Version;

TEST(Version, hasTheNumbersOfThisRelease)
{
    EXPECT_EQ(Version::GetMajor(), 3);
    EXPECT_EQ(Version::GetMinor(), 0);
    EXPECT_EQ(Version::GetRelease(), 0);
    EXPECT_EQ(Version::GetRevision(), 47);
    EXPECT_EQ(Version::GetYear(), 2025);
    EXPECT_EQ(Version::GetMonth(), 6);
}

TEST(Version, isNeitherBetaNorDebugNorDev)
{
    EXPECT_FALSE(Version::IsBeta());
    EXPECT_FALSE(Version::IsDebug());
    EXPECT_FALSE(Version::IsDev());
}

TEST(Version, describesItselfInGrowingDetail)
{
    EXPECT_STREQ(Version::GetDescStringMajorMinor(false), "3.0");
    EXPECT_STREQ(Version::GetDescStringMajorMinorRelease(false), "3.0.0");
}

TEST(Version, isTheOneThatHeadersTellThePreprocessor)
{
    EXPECT_EQ(Version::GetMajor(), NQ_VERSION_MAJOR);
    EXPECT_EQ(Version::GetMinor(), NQ_VERSION_MINOR);
    EXPECT_EQ(Version::GetRelease(), NQ_VERSION_PATCH);
    EXPECT_STREQ(Version::GetDescStringMajorMinorRelease(false), NQ_VERSION_STRING);
    EXPECT_EQ(NQ_VERSION, 30000);
}

TEST(Version, namesItsBuildInSixteenLowerCaseHexadecimalDigits)
{
    const std::string start = "3.0.0.47 #";
    const std::string revision = Version::GetDescStringMajorMinorReleaseRevision(false);
    ASSERT_EQ(revision.size(), start.size() + 16);
    EXPECT_EQ(revision.substr(0, start.size()), start);
    EXPECT_EQ(revision.find_first_not_of("0123456789abcdef", start.size()), std::string::npos);
}

TEST(Version, datesItsFullDescriptionWithoutALeadingZero)
{
    const std::string revision = Version::GetDescStringMajorMinorReleaseRevision(false);
    EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevisionDate(), revision + " 2025-6");
}

TEST(Version, ignoresTheBoolOfItsDescriptions)
{
    EXPECT_STREQ(Version::GetDescStringMajorMinor(true), Version::GetDescStringMajorMinor(false));
    EXPECT_STREQ(
        Version::GetDescStringMajorMinorRelease(true),
        Version::GetDescStringMajorMinorRelease(false));
    EXPECT_STREQ(
        Version::GetDescStringMajorMinorReleaseRevision(true),
        Version::GetDescStringMajorMinorReleaseRevision(false));
}

} // namespace
