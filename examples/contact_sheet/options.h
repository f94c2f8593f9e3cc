#pragma once

#include <optional>
#include <string>
#include <vector>

namespace sheet {

/// What the command line says.
struct Options {
    std::vector<std::string> paths;
    std::string output = "sheet.png";
    std::string title = "Contact sheet";
    int tileWidth = 240; ///< pixels
    int columns = 6;
    int rows = 8;         ///< of a sheet, at most
    unsigned workers = 0; ///< 0: one for each processor
    double timeout = 10;  ///< seconds for one file
    int memory = 1024;    ///< megabytes for one worker
    std::string keep;     ///< a folder for what failed; empty: none
    std::string timeline; ///< a picture of the run; empty: none
    std::string redis;    ///< address of the server, for contact-sheet-cluster
    std::string queue;    ///< there
};

constexpr int exitUsage = 2;

/// Nothing when there is nothing more to do, with the exit status in `status`.
std::optional<Options> parseOptions(int argc, char* argv[], int& status);

} // namespace sheet
