#pragma once

/// The version of the headers that a program is compiled with, for the preprocessor:
///
///     #if NQ_VERSION < 30001
///     #error "this program needs nqSchedulerAPI 3.0.1"
///     #endif
///
/// nqSchedulerAPI::Version tells the one that is loaded, which may be later.
#define NQ_VERSION_MAJOR 3
#define NQ_VERSION_MINOR 0
#define NQ_VERSION_PATCH 0

/// One number that grows from version to version: 30000 for 3.0.0, 31204 for 3.12.4.
#define NQ_VERSION (NQ_VERSION_MAJOR * 10000 + NQ_VERSION_MINOR * 100 + NQ_VERSION_PATCH)

/// "3.0.0"
#define NQ_VERSION_STRING                                                                          \
    NQ_VERSION_TEXT(NQ_VERSION_MAJOR)                                                              \
    "." NQ_VERSION_TEXT(NQ_VERSION_MINOR) "." NQ_VERSION_TEXT(NQ_VERSION_PATCH)

/// A macro's value as a text. For the headers of this project.
#define NQ_VERSION_TEXT(macro) NQ_VERSION_TEXT_OF(macro)
#define NQ_VERSION_TEXT_OF(token) #token
