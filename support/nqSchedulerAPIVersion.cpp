#include "include/nqSchedulerAPIVersion.h"
#include "include/nqVersion.h"

// The numbers stand once and reach the texts through the preprocessor.
#define NQ_REVISION 47
#define NQ_YEAR 2025
#define NQ_MONTH 6

#define NQ_FULL NQ_VERSION_STRING "." NQ_VERSION_TEXT(NQ_REVISION) " #" NQ_BUILD_IDENTIFIER

namespace nqSchedulerAPI::Version {

static_assert(
    sizeof(NQ_BUILD_IDENTIFIER) == 16 + 1, "the build identifier has sixteen hexadecimal digits");

int GetMajor()
{
    return NQ_VERSION_MAJOR;
}

int GetMinor()
{
    return NQ_VERSION_MINOR;
}

int GetRelease()
{
    return NQ_VERSION_PATCH;
}

int GetRevision()
{
    return NQ_REVISION;
}

int GetYear()
{
    return NQ_YEAR;
}

int GetMonth()
{
    return NQ_MONTH;
}

const char* GetDescStringMajorMinor(bool /*ignored*/)
{
    return NQ_VERSION_TEXT(NQ_VERSION_MAJOR) "." NQ_VERSION_TEXT(NQ_VERSION_MINOR);
}

const char* GetDescStringMajorMinorRelease(bool /*ignored*/)
{
    return NQ_VERSION_STRING;
}

const char* GetDescStringMajorMinorReleaseRevision(bool /*ignored*/)
{
    return NQ_FULL;
}

const char* GetDescStringMajorMinorReleaseRevisionDate()
{
    return NQ_FULL " " NQ_VERSION_TEXT(NQ_YEAR) "-" NQ_VERSION_TEXT(NQ_MONTH);
}

bool IsBeta()
{
    return false;
}

bool IsDebug()
{
    return false;
}

bool IsDev()
{
    return false;
}

} // namespace nqSchedulerAPI::Version
