#include "pool/nqExceptionText.h"

#include <cstdlib>
#include <memory>
#include <typeinfo>

namespace nq {

std::string textOfForeignException()
{
    const std::type_info* const type = abi::__cxa_current_exception_type();
    if (type == nullptr)
        return "an exception of another language";
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(type->name(), nullptr, nullptr, nullptr), &std::free);
    return std::string("an exception of type ") + (name ? name.get() : type->name()) +
           ", which is no std::exception";
}

} // namespace nq
