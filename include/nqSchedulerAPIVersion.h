#pragma once

/// Which build of the library is loaded. Constants without side effects; any thread may call. The
/// texts live as long as the program and are never freed. The bool parameters are ignored.
#pragma GCC visibility push(default)

namespace nqSchedulerAPI::Version {

int GetMajor();
int GetMinor();
int GetRelease();
int GetRevision();
int GetYear();
int GetMonth();

/// "3.0"
const char* GetDescStringMajorMinor(bool ignored);

/// "3.0.0"
const char* GetDescStringMajorMinorRelease(bool ignored);

/// "3.0.0.47 #0123456789abcdef": sixteen lower-case hexadecimal digits name the build.
const char* GetDescStringMajorMinorReleaseRevision(bool ignored);

/// The same with the year and the month of the release: "3.0.0.47 #0123456789abcdef 2025-6".
const char* GetDescStringMajorMinorReleaseRevisionDate();

bool IsBeta();
bool IsDebug();
bool IsDev();

} // namespace nqSchedulerAPI::Version

#pragma GCC visibility pop
