#pragma once

#include <string>
#include <vector>

namespace sheet {

/// The files at these paths and, sorted, the pictures in the folders among them, at any depth.
/// Sheets that earlier runs have written to `output` are not among them. What cannot be read is:
/// making a tile of it will say why. Throws std::runtime_error for a path where there is nothing.
std::vector<std::string>
findPictures(const std::vector<std::string>& paths, const std::string& output);

/// The name of one sheet of many: sheet.png of one, sheet-1.png to sheet-9.png of nine.
std::string sheetName(const std::string& output, std::size_t sheet, std::size_t sheets);

/// Throws std::runtime_error when there can be no such file.
void requireWritable(const std::string& path);

/// Writes a file, which takes its name, and the place of an older one, when it is whole. Otherwise
/// throws std::runtime_error and leaves nothing behind.
void writeFile(const std::string& path, const std::string& bytes);

} // namespace sheet
