#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace bench {

/// Command-line options of the form "--name value".
class Options {
public:
    Options(int argc, char* argv[], int first);

    std::string text(const std::string& name, const std::string& otherwise) const;
    std::uint64_t number(const std::string& name, std::uint64_t otherwise) const;

private:
    std::map<std::string, std::string> mValues;
};

} // namespace bench
