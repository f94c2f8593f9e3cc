#pragma once

#pragma GCC visibility push(default)

/// Which build of the library is loaded. Constants without side effects: nothing blocks, nothing
/// fails, and any thread may call. The texts belong to the library and live as long as it is
/// loaded; never free them. The bool parameters are ignored.
namespace nqSchedulerAPI::Version {

int GetMajor();    ///< the first number of the version
int GetMinor();    ///< the second number
int GetRelease();  ///< the third number
int GetRevision(); ///< the fourth number
int GetYear();     ///< the year of the release
int GetMonth();    ///< the month of the release, 1 to 12

/// "3.0"
const char* GetDescStringMajorMinor(bool ignored);

/// "3.0.0"
const char* GetDescStringMajorMinorRelease(bool ignored);

/// "3.0.0.47 #0123456789abcdef": sixteen lower-case hexadecimal digits name the build.
const char* GetDescStringMajorMinorReleaseRevision(bool ignored);

/// The same with the year and the month of the release: "3.0.0.47 #0123456789abcdef 2025-6".
const char* GetDescStringMajorMinorReleaseRevisionDate();

bool IsBeta();  ///< whether this is a beta version
bool IsDebug(); ///< whether this is a debugging version
bool IsDev();   ///< whether this is a version under development

} // namespace nqSchedulerAPI::Version

#pragma GCC visibility pop
