#include "pool/nqFailedJobStore.h"

#include "pool/nqFailureText.h"
#include "pool/nqPoolWarning.h"
#include "pool/nqTexts.h"
#include "pool/nqWholeFile.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <set>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace nq {

namespace {

constexpr char jobSuffix[] = ".job";
constexpr char textSuffix[] = ".txt";
constexpr char partSuffix[] = ".part"; // of replaceFile(), behind one of the others

/// The wall clock's microseconds, which differ from call to call: two jobs of two pools with the
/// same id have two names.
std::int64_t uniqueStamp()
{
    static std::atomic<std::int64_t> latest{0};
    const auto now = std::chrono::duration_cast<std::chrono::microseconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    std::int64_t before = latest;
    std::int64_t stamp = 0;
    do {
        stamp = std::max<std::int64_t>(now, before + 1);
    } while (!latest.compare_exchange_weak(before, stamp));
    return stamp;
}

/// "20250630T140359.042137Z-4711-17": universal time, process, job.
std::string newName(nqJobId id)
{
    const std::int64_t stamp = uniqueStamp();
    const auto seconds = static_cast<std::time_t>(stamp / 1'000'000);
    std::tm universal{};
    ::gmtime_r(&seconds, &universal);
    std::array<char, 32> date{};
    std::strftime(date.data(), date.size(), "%Y%m%dT%H%M%S", &universal);
    const std::string fraction = std::to_string(1'000'000 + stamp % 1'000'000).substr(1);
    return std::string(date.data()) + '.' + fraction + "Z-" + std::to_string(::getpid()) + '-' +
           std::to_string(id);
}

bool isDigit(char character)
{
    return character >= '0' && character <= '9';
}

/// Whether `name` is one that newName() gives.
bool isName(std::string_view name)
{
    constexpr std::string_view stamp = "00000000T000000.000000Z-";
    if (name.size() <= stamp.size())
        return false;
    for (std::size_t index = 0; index < stamp.size(); ++index)
        if (stamp[index] == '0' ? !isDigit(name[index]) : name[index] != stamp[index])
            return false;
    const std::string_view ids = name.substr(stamp.size());
    const std::size_t dash = ids.find('-');
    const auto isNumber = [](std::string_view text) {
        return !text.empty() && std::all_of(text.begin(), text.end(), isDigit);
    };
    return dash != ids.npos && isNumber(ids.substr(0, dash)) && isNumber(ids.substr(dash + 1));
}

bool dropSuffix(std::string& name, std::string_view suffix)
{
    if (name.size() < suffix.size() ||
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0)
        return false;
    name.erase(name.size() - suffix.size());
    return true;
}

/// The names of all jobs in the folder, those included that a killed host has left half written.
std::set<std::string> namesIn(const std::string& folder)
{
    std::set<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        std::string name = entry->path().filename().string();
        dropSuffix(name, partSuffix);
        if ((dropSuffix(name, jobSuffix) || dropSuffix(name, textSuffix)) && isName(name))
            names.insert(std::move(name));
    }
    return names;
}

/// As one argument of a shell.
std::string quoted(const std::string& argument)
{
    constexpr std::string_view plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                       "0123456789_-+=./:,@%";
    if (argument.find_first_not_of(plain) == std::string::npos)
        return argument;
    std::string text = "'";
    for (const char character : argument)
        text += character == '\'' ? std::string("'\\''") : std::string(1, character);
    return text + '\'';
}

std::string attemptLine(const nqAttempt& attempt, std::size_t number)
{
    std::string line = "Attempt " + std::to_string(number);
    if (attempt.pid != 0)
        line += ", PID " + std::to_string(attempt.pid);
    return line + ": " + whatHappened(attempt) + "\n";
}

std::string attemptLines(const nqOutcome& outcome)
{
    std::string lines;
    std::size_t number = 0;
    for (const nqAttempt& attempt : outcome.earlierAttempts)
        lines += attemptLine(attempt, ++number);
    return lines + attemptLine(outcome, number + 1);
}

std::string instructions(const std::string& program, const std::string& jobPath)
{
    if (program.empty())
        return {};
    const std::string command = quoted(program) + " --job " + quoted(jobPath) + "\n";
    std::error_code unknown;
    return "\nTo run it again in " + quoted(std::filesystem::current_path(unknown).string()) +
           ":\n    " + command + "Under a debugger:\n    gdb --args " + command;
}

std::string textOn(const nqOutcome& outcome, const std::string& program, const std::string& jobPath)
{
    std::string text = "Job " + std::to_string(outcome.id) + ", " + sizeText(outcome.bytes.size()) +
                       ", failed: " + outcome.failureText() +
                       "\n\nQueued: " + durationText(outcome.queued) + "\n" +
                       attemptLines(outcome) + instructions(program, jobPath);
    if (!outcome.message.empty())
        text += "\nMessage:\n" + outcome.message + "\n";
    if (!outcome.lastWords.empty())
        text += "\nLast words:\n" + outcome.lastWords;
    return text;
}

} // namespace

nqFailedJobStore::nqFailedJobStore(
    const std::string& folder, std::size_t limit, std::string program)
    : mLimit(limit),
      mProgram(std::move(program))
{
    if (folder.empty())
        return;
    std::error_code staysRelative;
    const std::filesystem::path path = std::filesystem::absolute(folder, staysRelative);
    mFolder = staysRelative ? folder : path.string();
    makeFolder();
}

std::string nqFailedJobStore::keep(const nqOutcome& outcome)
{
    if (mFolder.empty())
        return {};
    const std::string base = mFolder + '/' + newName(outcome.id);
    const std::string textPath = base + textSuffix;
    std::string jobPath = base + jobSuffix;
    if (!makeFolder() || !write(textPath, textOn(outcome, mProgram, jobPath)))
        return {};
    if (!write(jobPath, outcome.text())) {
        ::unlink(textPath.c_str());
        return {};
    }
    dropOldest();
    return jobPath;
}

const std::string& nqFailedJobStore::problem() const
{
    return mProblem;
}

/// Each time, since somebody may have cleaned up.
bool nqFailedJobStore::makeFolder()
{
    mProblem.clear();
    std::error_code error;
    std::filesystem::create_directories(mFolder, error);
    return !error || fail("The folder for failed jobs cannot be made", mFolder, error.value());
}

bool nqFailedJobStore::write(const std::string& path, std::string_view content)
{
    constexpr mode_t forTheUser = 0600;
    const int error = replaceFile(path, content, forTheUser);
    if (error == 0)
        return true;
    return fail("A failed job cannot be kept", path, error);
}

void nqFailedJobStore::dropOldest() const
{
    if (mLimit == 0)
        return;
    const std::set<std::string> names = namesIn(mFolder);
    std::size_t surplus = names.size() - std::min(names.size(), mLimit);
    for (auto name = names.begin(); surplus > 0; ++name, --surplus) {
        for (const char* const suffix : {jobSuffix, textSuffix}) {
            const std::string path = mFolder + '/' + *name + suffix;
            ::unlink(path.c_str());
            ::unlink((path + partSuffix).c_str());
        }
    }
}

bool nqFailedJobStore::fail(const std::string& what, const std::string& path, int error)
{
    mProblem = what + ": " + path + ": " + std::generic_category().message(error);
    warn(mProblem);
    return false;
}

} // namespace nq
