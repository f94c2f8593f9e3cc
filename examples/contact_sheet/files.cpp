#include "files.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include <fnmatch.h>
#include <unistd.h>

namespace sheet {

namespace {

namespace fs = std::filesystem;

bool isPicture(const fs::path& path)
{
    return ::fnmatch("*.@(jpg|jpeg|png|ppm)", path.c_str(), FNM_EXTMATCH | FNM_CASEFOLD) == 0;
}

/// Whether it has the name of the output or, with a number, of one sheet of it.
bool isSheet(const fs::path& path, const fs::path& output)
{
    const std::string name = path.stem().string();
    const std::string stem = output.stem().string();
    std::error_code ignored;
    return path.extension() == output.extension() && name.compare(0, stem.size(), stem) == 0 &&
           ::fnmatch("?(-+([0-9]))", name.c_str() + stem.size(), FNM_EXTMATCH) == 0 &&
           fs::equivalent(path.parent_path(), fs::absolute(output).parent_path(), ignored);
}

// Links to folders are not followed: they may lead round in a circle.
void addPicturesOf(const fs::path& folder, const fs::path& output, std::vector<std::string>& found)
{
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder, error)) {
        std::error_code ignored;
        if (entry.is_directory(ignored) && !entry.is_symlink(ignored))
            addPicturesOf(entry.path(), output, found);
        else if (isPicture(entry.path()) && !isSheet(entry.path(), output))
            found.push_back(entry.path());
    }
    if (error)
        found.push_back(folder);
}

[[noreturn]] void throwUnwritable(const std::string& path, int error)
{
    throw std::runtime_error(
        path + " cannot be written: " + std::generic_category().message(error));
}

} // namespace

std::vector<std::string>
findPictures(const std::vector<std::string>& paths, const std::string& output)
{
    std::vector<std::string> pictures;
    for (const std::string& path : paths) {
        const fs::file_status status = fs::status(path);
        if (!fs::exists(status))
            throw std::runtime_error(path + ": there is no such file or folder");
        std::vector<std::string> found;
        if (fs::is_directory(status))
            addPicturesOf(path, output, found);
        else
            found.push_back(path);
        std::sort(found.begin(), found.end());
        pictures.insert(pictures.end(), found.begin(), found.end());
    }
    return pictures;
}

std::string sheetName(const std::string& output, std::size_t sheet, std::size_t sheets)
{
    if (sheets == 1)
        return output;
    std::string number = std::to_string(sheet);
    number.insert(0, std::to_string(sheets).size() - number.size(), '0'); // so that they sort
    fs::path path(output);
    return path.replace_filename(path.stem().string() + '-' + number + path.extension().string());
}

void requireWritable(const std::string& path)
{
    if (fs::is_directory(path))
        throwUnwritable(path, EISDIR);
    if (::access(fs::absolute(path).parent_path().c_str(), W_OK | X_OK) != 0)
        throwUnwritable(path, errno);
}

void writeFile(const std::string& path, const std::string& bytes)
{
    const std::string part = path + ".part";
    std::FILE* const file = std::fopen(part.c_str(), "wbe");
    if (file == nullptr)
        throwUnwritable(path, errno);
    int error = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size() ? 0 : errno;
    if (std::fclose(file) != 0 && error == 0)
        error = errno;
    if (error == 0 && std::rename(part.c_str(), path.c_str()) != 0)
        error = errno;
    if (error != 0) {
        std::remove(part.c_str());
        throwUnwritable(path, error);
    }
}

} // namespace sheet
