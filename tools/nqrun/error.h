#pragma once

#include <stdexcept>

namespace nqrun {

/// What ends nqrun itself, with exit status 255 and the text on standard error.
class Error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace nqrun
