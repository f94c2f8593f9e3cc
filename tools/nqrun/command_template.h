#pragma once

#include "tools/nqrun/items.h"

#include <string>
#include <string_view>
#include <vector>

namespace nqrun {

/// How the words of a command become its arguments, item by item.
///
/// `{}` is the item, `{.}` without its extension, `{/}` without its folder, `{/.}` without both,
/// `{//}` its folder, `{#}` its number. Each stays within its argument, whatever bytes the item is
/// made of. A command without any of them gets the item as its last argument.
class CommandTemplate {
public:
    /// `words` has at least one word. With `isShell` the words, joined by blanks, are a line for
    /// /bin/sh, and items in it are quoted. With `readsBlocks` items are no arguments, and only {#}
    /// means something. Throws Error for a line in which quotes around an item would let it out.
    CommandTemplate(std::vector<std::string> words, bool isShell, bool readsBlocks);

    /// The program's name, as a rule a word of the command, comes first. Throws Error for an item
    /// that no argument can hold.
    std::vector<std::string> arguments(const Item& item) const;

    /// The program when it is the same for all items; empty when it is not.
    std::string program() const;

    const std::vector<std::string>& words() const
    {
        return mWords;
    }
    bool isShell() const
    {
        return mIsShell;
    }

private:
    std::string filled(const std::string& word, const Item& item, bool& isUsed) const;

    std::vector<std::string> mWords;
    bool mIsShell;
    bool mReadsBlocks;
};

/// A command line that a shell reads as exactly these arguments.
std::string commandLine(const std::vector<std::string>& arguments);

/// The path of a program, searched for in PATH when its name has no slash. Throws Error in words
/// when there is none that can be executed.
std::string findProgram(const std::string& name);

} // namespace nqrun
