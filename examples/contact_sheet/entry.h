#pragma once

#include "examples/contact_sheet/decode.h"

#include <string>
#include <variant>

namespace sheet {

/// What kept a file from being shown.
enum class FailureKind {
    undecodable,   // the worker looked at it and said no
    crash,         // the worker died over it
    tooMuchMemory, // the worker passed the memory cap over it and was killed
    timeout,       // the worker took too long over it and was killed
    notDone,       // no worker was left to look at it
};

struct Failure {
    FailureKind kind = FailureKind::notDone;
    std::string message;
};

/// Nothing is known about the file yet.
struct Unresolved {};

/// One file of the input.
struct Entry {
    std::string path; ///< as the user gave it, or below a folder the user gave
    std::variant<Unresolved, DecodedPicture, Failure> outcome;
};

/// A few words for people: the headline of a red tile.
const char* headline(FailureKind kind);

/// One word for programs: the status in the report.
const char* statusWord(FailureKind kind);

} // namespace sheet
