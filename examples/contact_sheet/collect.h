#pragma once

#include <string>
#include <vector>

namespace sheet {

/// The files to show: each path that is a file, and the pictures (by their ending: .jpg, .jpeg,
/// .png) below each path that is a folder, sorted by path, links to folders not followed. `output`
/// is left out of folders, so that a sheet is not shown on the next one.
///
/// Throws std::runtime_error when a path given here does not exist or cannot be read. What cannot
/// be read below a folder is either passed over (a folder) or listed (a file, which then fails by
/// itself).
std::vector<std::string>
collectFiles(const std::vector<std::string>& paths, const std::string& output);

} // namespace sheet
