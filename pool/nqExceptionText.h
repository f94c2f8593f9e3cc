#pragma once

#include <cxxabi.h>
#include <exception>
#include <optional>
#include <string>

namespace nq {

/// The type of the exception being handled, which is no std::exception, in words.
std::string textOfForeignException();

/// Calls `action`, which is a host's own code. The text of the exception that it ends with, if any.
/// The end of a thread that is cancelled in there passes.
template <typename Action>
std::optional<std::string> exceptionOf(Action&& action)
{
    try {
        action();
        return std::nullopt;
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& exception) {
        return exception.what();
    } catch (...) {
        return textOfForeignException();
    }
}

} // namespace nq
