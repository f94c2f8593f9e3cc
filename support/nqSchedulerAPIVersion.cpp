#include "include/nqSchedulerAPIVersion.h"

// The numbers stand once and reach the texts through the preprocessor.
#define NQ_MAJOR 3
#define NQ_MINOR 0
#define NQ_RELEASE 0
#define NQ_REVISION 47
#define NQ_YEAR 2025
#define NQ_MONTH 6

#define NQ_TEXT_OF(token) #token
#define NQ_TEXT(macro) NQ_TEXT_OF(macro)

#define NQ_MAJOR_MINOR NQ_TEXT(NQ_MAJOR) "." NQ_TEXT(NQ_MINOR)
#define NQ_MAJOR_MINOR_RELEASE NQ_MAJOR_MINOR "." NQ_TEXT(NQ_RELEASE)
#define NQ_FULL NQ_MAJOR_MINOR_RELEASE "." NQ_TEXT(NQ_REVISION) " #" NQ_BUILD_IDENTIFIER

namespace nqSchedulerAPI::Version {

static_assert(
    sizeof(NQ_BUILD_IDENTIFIER) == 16 + 1, "the build identifier has sixteen hexadecimal digits");

int GetMajor()
{
    return NQ_MAJOR;
}

int GetMinor()
{
    return NQ_MINOR;
}

int GetRelease()
{
    return NQ_RELEASE;
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
    return NQ_MAJOR_MINOR;
}

const char* GetDescStringMajorMinorRelease(bool /*ignored*/)
{
    return NQ_MAJOR_MINOR_RELEASE;
}

const char* GetDescStringMajorMinorReleaseRevision(bool /*ignored*/)
{
    return NQ_FULL;
}

const char* GetDescStringMajorMinorReleaseRevisionDate()
{
    return NQ_FULL " " NQ_TEXT(NQ_YEAR) "-" NQ_TEXT(NQ_MONTH);
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
