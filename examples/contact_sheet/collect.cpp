#include "examples/contact_sheet/collect.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include <unistd.h>

namespace sheet {

namespace {

namespace fs = std::filesystem;

bool hasPictureEnding(const fs::path& path)
{
    std::string ending = path.extension().string();
    std::transform(ending.begin(), ending.end(), ending.begin(), [](unsigned char letter) {
        return static_cast<char>(std::tolower(letter));
    });
    return ending == ".jpg" || ending == ".jpeg" || ending == ".png";
}

std::vector<std::string> picturesBelow(const fs::path& folder, const fs::path& output)
{
    std::vector<std::string> found;
    std::error_code error;
    fs::recursive_directory_iterator at(
        folder, fs::directory_options::skip_permission_denied, error);
    for (; !error && at != fs::recursive_directory_iterator(); at.increment(error)) {
        std::error_code ignored;
        if (hasPictureEnding(at->path()) && at->is_regular_file(ignored) &&
            !fs::equivalent(at->path(), output, ignored))
            found.push_back(at->path().string());
    }
    if (error)
        throw std::runtime_error(folder.string() + ": " + error.message());
    std::sort(found.begin(), found.end());
    return found;
}

void requireReadable(const std::string& path)
{
    if (access(path.c_str(), R_OK) == 0)
        return;
    const int error = errno;
    throw std::runtime_error(path + ": " + std::generic_category().message(error));
}

} // namespace

std::vector<std::string>
collectFiles(const std::vector<std::string>& paths, const std::string& output)
{
    std::vector<std::string> files;
    for (const std::string& path : paths) {
        requireReadable(path);
        if (fs::is_directory(path)) {
            const std::vector<std::string> below = picturesBelow(path, output);
            files.insert(files.end(), below.begin(), below.end());
        } else if (fs::is_regular_file(path)) {
            files.push_back(path);
        } else {
            throw std::runtime_error(path + ": neither a file nor a folder");
        }
    }
    return files;
}

} // namespace sheet
