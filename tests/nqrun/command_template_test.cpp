#include "tools/nqrun/command_template.h"
#include "tools/nqrun/error.h"

#include <gtest/gtest.h>

namespace nqrun {
namespace {

using Words = std::vector<std::string>;

Words filled(const Words& words, const std::string& item, bool isShell = false, bool isPipe = false)
{
    return CommandTemplate(words, isShell, isPipe).arguments({7, item});
}

TEST(CommandTemplate, appendsTheItemWhereNothingStandsForIt)
{
    EXPECT_EQ(filled({"echo", "x"}, "a b"), (Words{"echo", "x", "a b"}));
}

TEST(CommandTemplate, appendsNothingWhereTheNumberIsAskedFor)
{
    EXPECT_EQ(filled({"echo", "{#}"}, "a"), (Words{"echo", "7"}));
}

TEST(CommandTemplate, replacesThePartsOfAPath)
{
    EXPECT_EQ(
        filled({"c", "{}", "{.}", "{/}", "{/.}", "{//}", "{#}"}, "in/a.b/pic.tar.gz"),
        (Words{
            "c", "in/a.b/pic.tar.gz", "in/a.b/pic.tar", "pic.tar.gz", "pic.tar", "in/a.b", "7"}));
}

TEST(CommandTemplate, takesADotInAFolderOrAtTheBeginningForNoExtension)
{
    EXPECT_EQ(filled({"c", "{.}"}, "a.b/c"), (Words{"c", "a.b/c"}));
    EXPECT_EQ(filled({"c", "{.}"}, ".bashrc"), (Words{"c", ".bashrc"}));
    EXPECT_EQ(filled({"c", "{.}"}, "d/.bashrc"), (Words{"c", "d/.bashrc"}));
}

TEST(CommandTemplate, knowsFoldersOfShortPaths)
{
    EXPECT_EQ(filled({"{//}"}, "a"), Words{"."});
    EXPECT_EQ(filled({"{//}"}, "/a"), Words{"/"});
    EXPECT_EQ(filled({"{//}"}, "a/b/"), Words{"a"});
    EXPECT_EQ(filled({"{/}"}, "a/b/"), Words{"b"});
    EXPECT_EQ(filled({"{/}"}, "/"), Words{"/"});
}

TEST(CommandTemplate, replacesWithinWordsAndMoreThanOnce)
{
    EXPECT_EQ(filled({"c", "x{}y{}", "{"}, "1"), (Words{"c", "x1y1", "{"}));
}

TEST(CommandTemplate, doesNotLookIntoTheItem)
{
    EXPECT_EQ(filled({"c", "{}"}, "{#}; rm -rf {}"), (Words{"c", "{#}; rm -rf {}"}));
}

TEST(CommandTemplate, quotesItemsOnlyForAShell)
{
    EXPECT_EQ(
        filled({"echo {} | wc"}, "a'b", true), (Words{"/bin/sh", "-c", "echo 'a'\\''b' | wc"}));
    EXPECT_EQ(filled({"echo"}, "$x", true), (Words{"/bin/sh", "-c", "echo '$x'"}));
}

// Or its own quotes would end there, and `$(...)` in a file's name be run.
TEST(CommandTemplate, refusesAnItemBetweenQuotesOfAShell)
{
    for (const char* const line :
         {R"sh(echo "{}")sh",
          R"sh(echo '{}')sh",
          R"sh(echo \{})sh",
          R"sh(echo "a $(b) {.}")sh",
          R"sh(echo "$(echo "{/}")")sh",
          R"sh(echo "`echo '{}'`")sh",
          R"sh(sh -c 'cat {}')sh",
          R"sh(echo it's)sh",
          R"sh(echo "\"{}")sh",
          "cat <<E\n{}\nE"})
        EXPECT_THROW(CommandTemplate({line}, true, false), Error) << line;
    for (const char* const line :
         {R"sh(echo {}"x"{}'y'{})sh",
          R"sh(x="$(basename {})"; echo "$x")sh",
          R"sh(x="`basename {}`"; (echo {}))sh",
          R"sh(echo "{#}" "\"" {})sh",
          R"sh(echo 'it'\''s' {})sh",
          R"sh(echo '\' {})sh",
          R"sh(awk '{print "}"}' {})sh",
          "cat <{} <<E\nx\nE"})
        EXPECT_NO_THROW(CommandTemplate({line}, true, false)) << line;
    EXPECT_NO_THROW(CommandTemplate({R"sh(echo "{}")sh"}, true, true)) << "blocks are no words";
    EXPECT_NO_THROW(CommandTemplate({R"sh(echo "{}")sh"}, false, false)) << "no shell";
}

TEST(CommandTemplate, leavesBlocksOutOfTheArguments)
{
    EXPECT_EQ(filled({"wc", "{}", "{#}"}, "lines\n", false, true), (Words{"wc", "{}", "7"}));
}

TEST(CommandTemplate, knowsTheProgramUnlessItemsNameIt)
{
    EXPECT_EQ(CommandTemplate({"echo", "{}"}, false, false).program(), "echo");
    EXPECT_EQ(CommandTemplate({"./{}"}, false, false).program(), "");
    EXPECT_EQ(CommandTemplate({"./{} | x"}, true, false).program(), "/bin/sh");
}

TEST(CommandLine, isReadByAShellAsTheArguments)
{
    EXPECT_EQ(commandLine({"echo", "a b", ""}), "echo 'a b' ''");
}

TEST(FindProgram, searchesPath)
{
    EXPECT_EQ(findProgram("sh").substr(0, 1), "/");
    EXPECT_EQ(findProgram("/bin/sh"), "/bin/sh");
}

std::string refusalOf(const std::string& program)
{
    try {
        return "found " + findProgram(program);
    } catch (const Error& error) {
        return error.what();
    }
}

TEST(FindProgram, saysWhyThereIsNone)
{
    EXPECT_EQ(
        refusalOf("no-such-program"), "no-such-program cannot be started: no such program in PATH");
    EXPECT_EQ(
        refusalOf("./no-such-program"), "./no-such-program cannot be started: no such program");
    EXPECT_EQ(refusalOf("/tmp"), "/tmp cannot be started: it is a folder");
    EXPECT_EQ(refusalOf("/etc/passwd"), "/etc/passwd cannot be started: it is not executable");
}

} // namespace
} // namespace nqrun
