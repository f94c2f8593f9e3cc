#include "examples/contact_sheet/entry.h"

namespace sheet {

const char* headline(FailureKind kind)
{
    switch (kind) {
    case FailureKind::undecodable:
        return "Cannot be decoded";
    case FailureKind::crash:
        return "Decoder crashed";
    case FailureKind::tooMuchMemory:
        return "Too much memory";
    case FailureKind::timeout:
        return "Took too long";
    case FailureKind::notDone:
        return "Not looked at";
    }
    return "";
}

const char* statusWord(FailureKind kind)
{
    switch (kind) {
    case FailureKind::undecodable:
        return "undecodable";
    case FailureKind::crash:
        return "crash";
    case FailureKind::tooMuchMemory:
        return "too-much-memory";
    case FailureKind::timeout:
        return "time-out";
    case FailureKind::notDone:
        return "not-done";
    }
    return "";
}

} // namespace sheet
