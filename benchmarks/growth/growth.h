#pragma once

#include "benchmarks/common/options.h"

namespace bench {

/// How the cost of the library grows with one quantity. Each measures one point and prints it as
/// one line of JSON.

/// --workers N --caps 0|1: a pump pass while every worker holds a job.
void growPump(const Options& options);

/// --jobs N: push, dispatch and pop with N jobs pending, and the memory that they take.
void growPending(const Options& options);

/// --bytes N --jobs N: jobs of one size through one worker, one after the other.
void growPayload(const Options& options);

/// --workers N --busy 0|1 --seconds N: a host that pumps while nothing happens. Prints its process
/// ids first, so that its system calls can be counted from outside.
void rest(const Options& options);

} // namespace bench
