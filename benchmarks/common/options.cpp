#include "benchmarks/common/options.h"

#include "benchmarks/common/fail.h"

namespace bench {

Options::Options(int argc, char* argv[], int first)
{
    for (int i = first; i < argc; i += 2) {
        const std::string name = argv[i];
        if (name.rfind("--", 0) != 0 || i + 1 == argc)
            fail("options are given as --name value");
        mValues[name.substr(2)] = argv[i + 1];
    }
}

std::string Options::text(const std::string& name, const std::string& otherwise) const
{
    const auto found = mValues.find(name);
    return found == mValues.end() ? otherwise : found->second;
}

std::uint64_t Options::number(const std::string& name, std::uint64_t otherwise) const
{
    const auto found = mValues.find(name);
    return found == mValues.end() ? otherwise : std::stoull(found->second);
}

} // namespace bench
