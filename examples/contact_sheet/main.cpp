// contact-sheet: small versions of many pictures on one sheet, decoded by worker processes, which
// are this program too. The host never looks into a file: it hands out paths, draws the tiles that
// come back, and a red one with the reason for each file that none comes back for.

#include "files.h"
#include "options.h"
#include "sheet.h"

#ifdef CONTACT_SHEET_CLUSTER
#include <nqClusterPool.h>
using Pool = nq::nqClusterPool;
#else
#include <nqPool.h>
using Pool = nq::nqPool;
#endif

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include <sys/ioctl.h>
#include <unistd.h>

namespace {

using namespace sheet;
using Json = nlohmann::ordered_json;
using Reason = nq::nqAttempt::Reason;

volatile std::sig_atomic_t stopSignal = 0;

/// The first Ctrl-C asks for an end. The second one finds no handler, and ends the program.
void noteStopSignal(int signal)
{
    stopSignal = signal;
    std::signal(signal, SIG_DFL);
}

/// What people read meanwhile: lines and, on a terminal, one below that changes.
class Screen {
public:
    ~Screen()
    {
        show("");
    }

    void say(const std::string& text)
    {
        show("");
        std::cerr << printable(text) << '\n';
    }

    /// Cut to the width that the terminal has now: a line that wraps cannot be replaced.
    void show(const std::string& text)
    {
        winsize size{};
        if (::isatty(STDERR_FILENO) == 0)
            return;
        const bool isKnown = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
        std::cerr << "\r\x1b[K" << text.substr(0, isKnown ? size.ws_col - 1U : 79U) << std::flush;
    }
};

/// What went wrong, in a few words.
std::string headlineOf(const nq::nqOutcome& outcome, const Options& options)
{
    std::ostringstream text;
    switch (outcome.reason) {
    case Reason::Exception:
        return "cannot be decoded";
    case Reason::Crashed:
        return "crashed (" + outcome.signalName() + ")";
    case Reason::Exited:
        return "exited (status " + std::to_string(outcome.exitStatus.value_or(-1)) + ")";
    case Reason::MemoryCap:
        return "too much memory (" + std::to_string(options.memory) + " MB)";
    case Reason::Timeout:
        text << "timeout (" << options.timeout << " s)";
        return text.str();
    case Reason::None:
        return "the answer makes no sense";
    default:
        return "not done";
    }
}

/// What the decoder has thrown or printed about it.
std::string detailOf(const nq::nqOutcome& outcome)
{
    std::string words = outcome.lastWords;
    words.erase(words.find_last_not_of('\n') + 1);
    words.erase(0, words.rfind('\n') + 1); // all but the last line
    if (outcome.reason != Reason::Exception)
        return words;
    return outcome.message + (words.empty() ? "" : ": " + words);
}

nq::nqPoolOptions poolOptions(const Options& options)
{
    nq::nqPoolOptions pool;
    pool.workers = options.workers;
    pool.jobTimeout = std::chrono::milliseconds(std::llround(options.timeout * 1000));
    pool.memoryCap = static_cast<std::uint64_t>(options.memory) << 20;
    pool.keepFailedJobs = options.keep;
    pool.keptFailedJobs = 0;          // all of them: the report names each
    pool.retry = {3, {Reason::Lost}}; // the machine's fault, not the file's
    pool.name = options.title;
    pool.timelineFile = options.timeline;
    // Tiles come in the order of the files, so a sheet is drawn and forgotten once it is full. The
    // bound says how many of them may wait for a file that takes long; with it, a million files
    // need no more memory than a thousand.
    pool.order = nq::nqPoolOptions::Order::Submission;
    pool.maxPendingJobs = 64;
    pool.whenFull = nq::nqPoolOptions::WhenFull::Refuse; // not to be out of reach of Ctrl-C
    return pool;
}

class Run {
public:
    /// Refuses what can be refused before the work begins.
    explicit Run(const Options& options);
    int go();

private:
    void submitSome();
    void take(const std::string& path, const nq::nqOutcome& outcome);
    void finishSheet();
    std::string progress() const;

    const Options& mOptions;
    const std::vector<std::string> mFiles;
    const std::string mReportName;
    const Layout mLayout;
    const std::size_t mCellsOfASheet;
    const std::size_t mSheetCount;
    Pool mPool;
    Screen mScreen;
    std::size_t mSubmitted = 0;
    std::size_t mShown = 0;
    std::size_t mFailed = 0;
    std::vector<Cell> mCells;     // of the next sheet
    Json mSheets = Json::array(); // names of those written
    Json mReport = Json::array(); // of the files so far
};

Layout layoutOf(const Options& options, std::size_t files)
{
    if (files == 0)
        throw std::runtime_error("there are no pictures (.jpg, .jpeg, .png, .ppm)");
    const auto columns = std::min(files, static_cast<std::size_t>(options.columns));
    const Size tile{options.tileWidth, options.tileWidth * 3 / 4};
    return {tile, static_cast<int>(columns), options.rows, options.title};
}

Run::Run(const Options& options)
    : mOptions(options),
      mFiles(findPictures(options.paths, options.output)),
      mReportName(options.output.substr(0, options.output.rfind('.')) + ".json"),
      mLayout(layoutOf(options, mFiles.size())),
      mCellsOfASheet(static_cast<std::size_t>(mLayout.columns * mLayout.rows)),
      mSheetCount((mFiles.size() - 1) / mCellsOfASheet + 1),
#ifdef CONTACT_SHEET_CLUSTER
      mPool(options.redis, options.queue, poolOptions(options))
#else
      mPool(poolOptions(options))
#endif
{
    newSurface(sheetSize(mLayout, options.rows));
    requireWritable(sheetName(options.output, 1, mSheetCount));
    requireWritable(mReportName);
}

int Run::go()
{
    std::signal(SIGINT, noteStopSignal);
    std::signal(SIGTERM, noteStopSignal);
    while (mShown + mFailed < mFiles.size() && stopSignal == 0) {
        submitSome();
        mPool.pump(std::chrono::milliseconds(100));
        mScreen.show(progress());
    }
    if (stopSignal != 0)
        mScreen.say("interrupted: stopping; interrupt again to leave at once");
    mPool.stop();
    if (!mCells.empty())
        finishSheet();
    for (std::size_t left = mReport.size(); left < mFiles.size(); ++left)
        mReport.push_back({{"path", mFiles[left]}, {"status", "not-done"}});
    const Json report{{"sheets", mSheets}, {"files", mReport}};
    writeFile(mReportName, report.dump(2, ' ', false, Json::error_handler_t::replace) + '\n');
    mScreen.show("");
    std::cout << progress() << ", report in " << printable(mReportName) << std::endl;
    return mShown == mFiles.size() ? 0 : 1;
}

void Run::submitSome()
{
    for (; mSubmitted < mFiles.size(); ++mSubmitted) {
        const std::string& path = mFiles[mSubmitted];
        const auto toTake = [this, &path](nq::nqOutcome&& outcome) { take(path, outcome); };
        nq::nqJobOptions job;
        job.label = path.substr(path.rfind('/') + 1);
        if (mPool.submit(jobOf(path, mLayout.tile), job, toTake) == 0)
            return; // full
    }
}

void Run::take(const std::string& path, const nq::nqOutcome& outcome)
{
    if (outcome.state == nq::nqOutcome::State::Cancelled)
        return; // interrupted
    for (const nq::nqAttempt& earlier : outcome.earlierAttempts)
        mScreen.say(path + ": " + earlier.message + "; tried again");
    const std::size_t attempts = outcome.earlierAttempts.size() + 1;
    Cell cell;
    cell.caption = path.substr(path.rfind('/') + 1);
    if (outcome)
        cell.tile = tileOf(outcome.bytes, mLayout.tile);
    if (cell.tile) {
        ++mShown;
        mReport.push_back({{"path", path}, {"status", "ok"}, {"attempts", attempts}});
    } else {
        ++mFailed;
        cell.headline = headlineOf(outcome, mOptions);
        cell.detail = detailOf(outcome);
        mScreen.say(path + ": " + cell.headline + (cell.detail.empty() ? "" : ": " + cell.detail));
        mReport.push_back(
            {{"path", path},
             {"status", "failed"},
             {"attempts", attempts},
             {"reason", cell.headline},
             {"detail", cell.detail},
             {"failure", outcome.failureText()},
             {"kept", outcome.keptAs}});
    }
    mCells.push_back(std::move(cell));
    if (mCells.size() == mCellsOfASheet)
        finishSheet();
}

void Run::finishSheet()
{
    const auto failed =
        std::count_if(mCells.begin(), mCells.end(), [](const Cell& cell) { return !cell.tile; });
    std::ostringstream note;
    if (mSheetCount > 1)
        note << "sheet " << mSheets.size() + 1 << " of " << mSheetCount << ": ";
    note << mCells.size() << (mCells.size() == 1 ? " file" : " files");
    if (failed > 0)
        note << ", " << failed << " failed";
    const std::string name = sheetName(mOptions.output, mSheets.size() + 1, mSheetCount);
    writeFile(name, drawSheet(mCells, mLayout, note.str()));
    mScreen.say(name + ": " + note.str());
    mSheets.push_back(name);
    mCells.clear();
}

std::string Run::progress() const
{
    std::ostringstream text;
    text << mShown << " of " << mFiles.size() << " shown, " << mFailed << " failed";
    return text.str();
}

} // namespace

int main(int argc, char* argv[])
{
    nq::runAsWorker(argc, argv, makeTile);
    int status = 0;
    const std::optional<Options> options = parseOptions(argc, argv, status);
    if (!options)
        return status;
    try {
        status = Run(*options).go();
    } catch (const std::exception& error) {
        std::cerr << "contact-sheet: " << printable(error.what()) << '\n';
        return exitUsage;
    }
    if (stopSignal != 0)
        std::raise(stopSignal); // so that the shell sees why it ended
    return status;
}
