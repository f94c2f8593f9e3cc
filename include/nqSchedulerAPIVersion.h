#pragma once

#include "nqExport.h"
#include "nqVersion.h"

/// Which build of the library is loaded. Constants without side effects: nothing blocks, nothing
/// fails, and any thread may call. The texts belong to the library and live as long as it is
/// loaded; never free them. The bool parameters are ignored. The macros of nqVersion.h tell which
/// version a program was compiled with.
namespace nqSchedulerAPI::Version {

NQ_API int GetMajor();    ///< the first number of the version
NQ_API int GetMinor();    ///< the second number
NQ_API int GetRelease();  ///< the third number
NQ_API int GetRevision(); ///< the fourth number
NQ_API int GetYear();     ///< the year of the release
NQ_API int GetMonth();    ///< the month of the release, 1 to 12

/// "3.0"
NQ_API const char* GetDescStringMajorMinor(bool ignored);

/// "3.0.0"
NQ_API const char* GetDescStringMajorMinorRelease(bool ignored);

/// "3.0.0.47 #0123456789abcdef": sixteen lower-case hexadecimal digits name the build.
NQ_API const char* GetDescStringMajorMinorReleaseRevision(bool ignored);

/// The same with the year and the month of the release: "3.0.0.47 #0123456789abcdef 2025-6".
NQ_API const char* GetDescStringMajorMinorReleaseRevisionDate();

NQ_API bool IsBeta();  ///< whether this is a beta version
NQ_API bool IsDebug(); ///< whether this is a debugging version
NQ_API bool IsDev();   ///< whether this is a version under development

} // namespace nqSchedulerAPI::Version
