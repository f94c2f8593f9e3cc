#include "tools/nqrun/failure_script.h"

#include "tools/nqrun/command_template.h"
#include "tools/nqrun/error.h"
#include "tools/nqrun/io.h"
#include "tools/nqrun/text.h"

#include <array>
#include <cstdio>
#include <filesystem>
#include <unistd.h>

namespace nqrun {

namespace {

// As comments, one line each, whatever they hold.
std::string asComments(std::string_view text)
{
    std::string comments;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        comments += "#   " + shown(text.substr(0, end)) + '\n';
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return comments;
}

} // namespace

FailureScripts::FailureScripts(const std::string& folder)
{
    std::error_code problem;
    std::filesystem::create_directories(folder, problem);
    if (!problem && ::access(folder.c_str(), W_OK | X_OK) != 0)
        problem = std::error_code(errno, std::generic_category());
    if (problem)
        throw Error(
            "the folder " + shown(folder) +
            " for failed items cannot be used: " + problem.message());
    mFolder = std::filesystem::absolute(folder, problem).string();
}

std::string FailureScripts::pathOf(std::uint64_t index, const char* ending) const
{
    std::array<char, 32> name{};
    std::snprintf(name.data(), name.size(), "/%06llu", static_cast<unsigned long long>(index));
    return mFolder + name.data() + ending;
}

void FailureScripts::write(const Finished& finished, const FailedCommand& command) const
{
    const std::string inputPath = pathOf(finished.index, ".input");
    if (command.hasInput || command.isWorkersJob)
        writeWhole(inputPath, command.input, 0600);
    std::string script = "#!/bin/sh\n# Runs item " + std::to_string(finished.index) +
                         " again: " + shown(finished.name, 200) +
                         "\n# How it failed: " + shown(finished.failure) + ".\n";
    if (!finished.lastWords.empty())
        script += "# The last that it wrote to standard error:\n" + asComments(finished.lastWords);
    std::error_code problem;
    const std::string folder = std::filesystem::current_path(problem).string();
    script += "cd " + shellQuoted(folder) + " || exit 126\n";
    script += "exec " + commandLine(command.arguments);
    if (command.isWorkersJob)
        script += " --job " + shellQuoted(inputPath);
    script += " <" + shellQuoted(command.hasInput ? inputPath : "/dev/null") + '\n';
    writeWhole(pathOf(finished.index, ".sh"), script, 0700);
}

void FailureScripts::remove(std::uint64_t index) const
{
    for (const char* const ending : {".sh", ".input"})
        ::unlink(pathOf(index, ending).c_str());
}

} // namespace nqrun
