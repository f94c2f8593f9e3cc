#include "examples/contact_sheet/tests/sample_files.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace sheet;
using nlohmann::json;

constexpr Colour green{0, 200, 0};

#if defined(__SANITIZE_ADDRESS__)
constexpr bool isUnderAddressSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool isUnderAddressSanitizer = true;
#else
constexpr bool isUnderAddressSanitizer = false;
#endif
#else
constexpr bool isUnderAddressSanitizer = false;
#endif

pid_t start(std::vector<std::string> command)
{
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (std::string& word : command)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, arguments[0], nullptr, nullptr, arguments.data(), environ) != 0)
        ADD_FAILURE() << "cannot start " << command[0];
    return pid;
}

int waitStatus(pid_t pid)
{
    int status = -1;
    while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    return status;
}

class ContactSheetProgram : public testing::Test {
protected:
    // The exit status. Options come first, then the paths.
    int run(std::vector<std::string> arguments, const std::vector<std::string>& paths)
    {
        arguments.insert(arguments.begin(), {CONTACT_SHEET, "--quiet"});
        arguments.push_back(output);
        arguments.insert(arguments.end(), paths.begin(), paths.end());
        const int status = waitStatus(start(arguments));
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    // "ok time-out ..." in the order of the report.
    std::string statuses() const
    {
        const json lines = json::parse(sample::readBytes(report))["files"];
        std::string all;
        for (const json& line : lines)
            all += (all.empty() ? "" : " ") + line["status"].get<std::string>();
        return all;
    }

    std::string makePicture(const std::string& name)
    {
        sample::writePng(folder.path(name), Picture({40, 30}, green));
        return folder.path(name);
    }

    std::string makeScript(const std::string& name, const std::string& lines)
    {
        sample::writeBytes(folder.path(name), "#!/bin/sh\n" + lines + "\n");
        std::filesystem::permissions(folder.path(name), std::filesystem::perms::owner_all);
        return folder.path(name);
    }

    std::string makeHostile(const std::string& name)
    {
        const std::string hostile = folder.path("hostile");
        std::filesystem::create_directories(hostile);
        EXPECT_EQ(waitStatus(start({MAKE_HOSTILE_FILES, hostile})), 0);
        return hostile + "/" + name;
    }

    sample::Folder folder;
    const std::string output = folder.path("out.png");
    const std::string report = folder.path("out.json");
};

TEST_F(ContactSheetProgram, showsManyPicturesInTheirOrder)
{
    constexpr int count = 60;
    std::vector<std::string> paths;
    paths.reserve(count);
    for (int index = 0; index < count; ++index)
        paths.push_back(makePicture(std::to_string(index) + ".png"));
    EXPECT_EQ(run({"-j2"}, paths), 0);

    const json files = json::parse(sample::readBytes(report))["files"];
    ASSERT_EQ(files.size(), paths.size());
    for (std::size_t index = 0; index < paths.size(); ++index) {
        EXPECT_EQ(files[index]["path"], paths[index]);
        EXPECT_EQ(files[index]["status"], "ok");
    }
    EXPECT_EQ(sample::readBytes(output).substr(1, 3), "PNG");
}

TEST_F(ContactSheetProgram, findsPicturesByARelativePath)
{
    const std::string picture = makePicture("a.png");
    EXPECT_EQ(run({}, {std::filesystem::relative(picture).string()}), 0);
}

TEST_F(ContactSheetProgram, goesOnAfterAFileThatIsNoPicture)
{
    const std::string text = folder.path("letter.jpg");
    sample::writeBytes(text, "Dear aunt");
    EXPECT_EQ(run({}, {makePicture("a.png"), text, makePicture("b.png")}), 1);
    EXPECT_EQ(statuses(), "ok undecodable ok");
}

TEST_F(ContactSheetProgram, goesOnAfterFilesThatCrashHangAndGrowTheDecoder)
{
    if (isUnderAddressSanitizer)
        GTEST_SKIP() << "AddressSanitizer's own memory is far above any limit";
    const std::string grows = makeHostile("unpacks-to-2-gigabytes.png");
    const std::string crashes = folder.path("hostile/unpacks-to-5-gigabytes.png");
    const std::string hangs = folder.path("hostile/twenty-thousand-scans.jpg");
    const std::string good = makePicture("good.png");
    EXPECT_EQ(
        run({"-j2", "--timeout", "2", "--memory", "256M", "--allocation", "3G"},
            {grows, good, crashes, good, hangs, good}),
        1);
    EXPECT_EQ(statuses(), "too-much-memory ok crash ok time-out ok");
}

TEST_F(ContactSheetProgram, refusesToStartWithoutWhatItNeeds)
{
    const std::string picture = makePicture("a.png");
    EXPECT_EQ(run({"--workers", "0"}, {picture}), 2);
    EXPECT_EQ(run({}, {folder.path("missing.png")}), 2);
    EXPECT_EQ(run({"--worker", picture}, {picture}), 2);
    EXPECT_EQ(run({"--report", folder.path("missing/out.json")}, {picture}), 2);
    EXPECT_EQ(run({"--report", output}, {picture}), 2);
    EXPECT_EQ(folder.names(), std::vector<std::string>{"a.png"});
}

TEST_F(ContactSheetProgram, refusesMoreWorkersThanThePoolTakes)
{
    EXPECT_EQ(run({"--workers", "1000"}, {makePicture("a.png")}), 2);
    EXPECT_EQ(folder.names(), std::vector<std::string>{"a.png"});
}

// The first worker is a real one, which one file ends; what should replace it never starts.
TEST_F(ContactSheetProgram, endsWhenNoWorkerIsLeft)
{
    const std::string worker = makeScript(
        "worker",
        "mkdir '" + folder.path("once") + "' 2>/dev/null || exit 1\n" +
            "exec " CONTACT_SHEET_WORKER " \"$@\"");
    const std::string hangs = makeHostile("twenty-thousand-scans.jpg");
    const std::string good = makePicture("good.png");
    EXPECT_EQ(run({"-j1", "--timeout", "1", "--worker", worker}, {good, hangs, good, good}), 1);
    EXPECT_EQ(statuses(), "ok time-out not-done not-done");
}

// The worker says through a named pipe that it was started, and the program is stopped then. This
// test holds both ends of that pipe, so that opening it waits for no one.
TEST_F(ContactSheetProgram, leavesNothingBehindWhenItIsStopped)
{
    const std::string started = folder.path("started");
    ASSERT_EQ(mkfifo(started.c_str(), 0600), 0);
    const int both = open(started.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_NE(both, -1);
    const std::string worker =
        makeScript("worker", "echo yes > '" + started + "'\nexec " CONTACT_SHEET_WORKER " \"$@\"");
    const std::string hangs = makeHostile("twenty-thousand-scans.jpg");
    const pid_t pid = start(
        {CONTACT_SHEET, "--quiet", "-j1", "--timeout", "1", "--worker", worker, output, hangs});
    char answer = 0;
    EXPECT_EQ(read(both, &answer, 1), 1);
    EXPECT_EQ(kill(pid, SIGTERM), 0);

    const int status = waitStatus(pid);
    close(both);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
    EXPECT_EQ(folder.names(), (std::vector<std::string>{"hostile", "started", "worker"}));
}

} // namespace
