#include "tools/nqrun/command_template.h"

#include "tools/nqrun/command.h"
#include "tools/nqrun/error.h"
#include "tools/nqrun/text.h"

#include <cerrno>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace nqrun {

namespace {

std::string_view withoutFolder(std::string_view path)
{
    while (path.size() > 1 && path.back() == '/')
        path.remove_suffix(1);
    const std::size_t slash = path.rfind('/');
    return slash == path.npos || path.size() == 1 ? path : path.substr(slash + 1);
}

// A dot at the beginning of a name hides a file, and ends nothing.
std::string_view withoutExtension(std::string_view path)
{
    const std::size_t dot = path.rfind('.');
    const std::size_t slash = path.rfind('/');
    const std::size_t name = slash == path.npos ? 0 : slash + 1;
    return dot == path.npos || dot <= name ? path : path.substr(0, dot);
}

std::string_view folderOf(std::string_view path)
{
    while (path.size() > 1 && path.back() == '/')
        path.remove_suffix(1);
    const std::size_t slash = path.rfind('/');
    if (slash == path.npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

struct Placeholder {
    std::string_view name;
    std::string_view (*part)(std::string_view item);
};

constexpr Placeholder placeholders[] = {
    {"{}", [](std::string_view item) { return item; }},
    {"{.}", withoutExtension},
    {"{/}", withoutFolder},
    {"{/.}", [](std::string_view item) { return withoutExtension(withoutFolder(item)); }},
    {"{//}", folderOf},
};

constexpr std::string_view numberName = "{#}";

bool startsWith(std::string_view text, std::size_t position, std::string_view what)
{
    return text.compare(position, what.size(), what) == 0;
}

std::string joined(const std::vector<std::string>& words)
{
    std::string line;
    for (const std::string& word : words) {
        if (!line.empty())
            line += ' ';
        line += word;
    }
    return line;
}

int whyNotExecutable(const std::string& path)
{
    struct stat about {};
    if (::stat(path.c_str(), &about) != 0)
        return errno;
    if (!S_ISREG(about.st_mode) || ::access(path.c_str(), X_OK) != 0)
        return EACCES;
    return 0;
}

} // namespace

CommandTemplate::CommandTemplate(std::vector<std::string> words, bool isShell, bool readsBlocks)
    : mWords(std::move(words)),
      mIsShell(isShell),
      mReadsBlocks(readsBlocks)
{
}

std::vector<std::string> CommandTemplate::arguments(const Item& item) const
{
    std::vector<std::string> arguments;
    arguments.reserve(mWords.size() + 3);
    bool isUsed = mReadsBlocks;
    for (const std::string& word : mWords)
        arguments.push_back(filled(word, item, isUsed));
    if (!isUsed)
        arguments.push_back(mIsShell ? shellQuoted(item.text) : item.text);
    // It would end the argument, and `rm` get another file than the one that was meant.
    for (const std::string& argument : arguments) {
        if (argument.find('\0') != argument.npos)
            throw Error(
                "item " + std::to_string(item.index) +
                " holds a null byte, which no argument can; with -0, null bytes end items");
    }
    if (mIsShell)
        arguments = {"/bin/sh", "-c", joined(arguments)};
    return arguments;
}

std::string CommandTemplate::filled(const std::string& word, const Item& item, bool& isUsed) const
{
    std::string text;
    for (std::size_t position = 0; position < word.size();) {
        if (word[position] != '{') {
            text += word[position++];
            continue;
        }
        if (startsWith(word, position, numberName)) {
            text += std::to_string(item.index);
            position += numberName.size();
            isUsed = true;
            continue;
        }
        const Placeholder* found = nullptr;
        for (const Placeholder& placeholder : placeholders) {
            if (!mReadsBlocks && startsWith(word, position, placeholder.name))
                found = &placeholder;
        }
        if (found == nullptr) {
            text += word[position++];
            continue;
        }
        const std::string_view part = found->part(item.text);
        text += mIsShell ? shellQuoted(part) : std::string(part);
        position += found->name.size();
        isUsed = true;
    }
    return text;
}

std::string CommandTemplate::program() const
{
    if (mIsShell)
        return "/bin/sh";
    bool isUsed = false;
    const Item none;
    std::string program = filled(mWords.front(), none, isUsed);
    return isUsed ? std::string() : program;
}

std::string commandLine(const std::vector<std::string>& arguments)
{
    std::vector<std::string> quoted;
    quoted.reserve(arguments.size());
    for (const std::string& argument : arguments)
        quoted.push_back(shellQuoted(argument));
    return joined(quoted);
}

std::string findProgram(const std::string& name)
{
    if (name.find('/') != name.npos) {
        const int error = whyNotExecutable(name);
        if (error != 0)
            throw Error(startFailureText(error, name));
        return name;
    }
    const char* const variable = std::getenv("PATH");
    const std::string path = variable != nullptr ? variable : "/usr/local/bin:/usr/bin:/bin";
    int error = ENOENT;
    for (std::size_t begin = 0; begin <= path.size();) {
        const std::size_t end = std::min(path.find(':', begin), path.size());
        const std::string folder = path.substr(begin, end - begin);
        std::string candidate = (folder.empty() ? "." : folder) + '/' + name;
        const int problem = whyNotExecutable(candidate);
        if (problem == 0)
            return candidate;
        if (problem == EACCES)
            error = EACCES;
        begin = end + 1;
    }
    throw Error(
        error == ENOENT ? shown(name, 200) + " cannot be started: no such program in PATH"
                        : shown(name, 200) +
                              " cannot be started: what PATH has of this name is not executable");
}

} // namespace nqrun
