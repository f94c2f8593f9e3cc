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

const Placeholder* placeholderAt(std::string_view text, std::size_t position)
{
    for (const Placeholder& placeholder : placeholders) {
        if (startsWith(text, position, placeholder.name))
            return &placeholder;
    }
    return nullptr;
}

// Reads a line as a shell does, as far as quotes go.
class ShellLine {
public:
    explicit ShellLine(std::string_view line)
        : mLine(line)
    {
    }

    // Whether something stands between quotes, after a backslash or in a here-document: the quotes
    // that protect an item would end there, and the item be read as code.
    bool hasQuotedPlaceholder()
    {
        for (mAt = 0; mAt < mLine.size(); ++mAt) {
            const bool isQuoted = isIn('\'') || isIn('"') || mIsHereDocument;
            const std::size_t read = mLine[mAt] == '\\' && !isIn('\'') ? mAt + 1 : mAt;
            if ((isQuoted || read != mAt) && placeholderAt(mLine, read) != nullptr)
                return true;
            if (read == mAt)
                take(mLine[mAt]);
            mAt = read;
        }
        return isIn('\'') || isIn('"'); // where the item would be added
    }

private:
    bool isIn(char opening) const
    {
        return !mOpen.empty() && mOpen.back() == opening;
    }

    void take(char byte)
    {
        const bool isEnd =
            isIn('\'') ? byte == '\'' : (byte != '(' && isIn(byte)) || (byte == ')' && isIn('('));
        // What stands in parentheses is read anew, between quotes as well.
        const bool isAnew = byte == '(' && (!isIn('"') || (mAt > 0 && mLine[mAt - 1] == '$'));
        if (isEnd)
            mOpen.pop_back();
        else if (isIn('\''))
            return;
        else if (isAnew || byte == '"' || byte == '`' || (byte == '\'' && !isIn('"')))
            mOpen += byte;
        else if (startsWith(mLine, mAt, "<<") && !isIn('"'))
            mHasHereDocument = true;
        else if (byte == '\n')
            mIsHereDocument = mHasHereDocument;
    }

    std::string_view mLine;
    std::size_t mAt = 0;
    std::string mOpen; // quotes, backticks and parentheses
    bool mHasHereDocument = false;
    bool mIsHereDocument = false;
};

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
    if (mIsShell && !mReadsBlocks && ShellLine(joined(mWords)).hasQuotedPlaceholder())
        throw Error(
            "an item cannot stand between quotes of the line for the shell: --shell quotes it "
            "itself; write x={} and then \"$x\" where you need that");
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
        const Placeholder* const found = mReadsBlocks ? nullptr : placeholderAt(word, position);
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
