#pragma once

#include "nqOutcome.h"

#include <string>

namespace nq {

/// What happened in one attempt, without why: "the worker was ended by SIGSEGV after 1.2 s".
std::string whatHappened(const nqAttempt& attempt);

/// See nqOutcome::failureText().
std::string failureTextOf(const nqOutcome& outcome);

/// "SIGSEGV", "SIGRTMIN+3", "signal 99".
std::string nameOfSignal(int signal);

} // namespace nq
