// Runs every file of a folder through a target, without a fuzzer: replay FOLDER

#include "tests/common/refusedMemory.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> filesIn(const fs::path& folder)
{
    std::vector<fs::path> files;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
        if (entry.is_regular_file())
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

bool replay(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> read{std::istreambuf_iterator<char>(file), {}};
    if (!file.is_open() || file.bad())
        return false;
    // The last words of a target that ends the program are then preceded by the input's name.
    std::cout << path.filename().string() << std::endl;
    const std::vector<std::uint8_t> bytes(read.begin(), read.end());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return true;
}

int fail(const fs::path& path, const char* why)
{
    std::cerr << "replay: " << path.string() << why << std::endl;
    return 1;
}

int replayFolder(const fs::path& folder)
{
    if (!common::RefusedMemory::isPossible())
        return fail(folder, " needs memory that can be refused, which this tool does not allow");
    const std::vector<fs::path> files = filesIn(folder);
    if (files.empty())
        return fail(folder, " holds no inputs");
    for (const fs::path& file : files) {
        if (!replay(file))
            return fail(file, " cannot be read");
    }
    std::cout << "replay: " << files.size() << " inputs, nothing found" << std::endl;
    return 0;
}

} // namespace

int main(int count, char** arguments)
try {
    if (count != 2)
        return fail("FOLDER", " is the one argument");
    return replayFolder(arguments[1]);
} catch (const std::exception& error) {
    return fail("FOLDER", error.what());
}
