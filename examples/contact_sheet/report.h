#pragma once

#include "examples/contact_sheet/entry.h"

#include <chrono>
#include <string>
#include <vector>

namespace sheet {

/// Figures of a whole run.
struct RunFigures {
    std::string picture; ///< the path of the contact sheet
    unsigned long workers = 0;
    std::chrono::duration<double> elapsed{};
};

/// The report as JSON text, one object for each entry in its order. Bytes of a path that are no
/// UTF-8 become U+FFFD.
std::string reportText(const std::vector<Entry>& entries, const RunFigures& figures);

} // namespace sheet
