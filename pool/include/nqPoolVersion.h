#pragma once

#include "nqVersion.h"

/// The version of the pool's headers that a program is compiled with, as in nqVersion.h. The pool
/// counts for itself, and while its first number is 0, a new second one may be another interface.
#define NQ_POOL_VERSION_MAJOR 0
#define NQ_POOL_VERSION_MINOR 1
#define NQ_POOL_VERSION_PATCH 0

/// One number that grows from version to version: 100 for 0.1.0.
#define NQ_POOL_VERSION                                                                            \
    (NQ_POOL_VERSION_MAJOR * 10000 + NQ_POOL_VERSION_MINOR * 100 + NQ_POOL_VERSION_PATCH)

/// "0.1.0"
#define NQ_POOL_VERSION_STRING                                                                     \
    NQ_VERSION_TEXT(NQ_POOL_VERSION_MAJOR)                                                         \
    "." NQ_VERSION_TEXT(NQ_POOL_VERSION_MINOR) "." NQ_VERSION_TEXT(NQ_POOL_VERSION_PATCH)
