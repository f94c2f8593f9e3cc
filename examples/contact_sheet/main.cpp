// contact-sheet: draws one picture with small versions of many, decoded by worker processes.

#include "examples/contact_sheet/collect.h"
#include "examples/contact_sheet/contact_sheet.h"
#include "examples/contact_sheet/decode_all.h"
#include "examples/contact_sheet/host_log.h"
#include "examples/contact_sheet/options.h"
#include "examples/contact_sheet/output_file.h"
#include "examples/contact_sheet/progress.h"
#include "examples/contact_sheet/report.h"
#include "examples/contact_sheet/stop_signal.h"

#include <nqSchedulerAPIVersion.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

using namespace sheet;

std::string versionText()
{
    return std::string("contact-sheet ") +
           nqSchedulerAPI::Version::GetDescStringMajorMinorReleaseRevisionDate();
}

std::vector<Entry> entriesFor(const Options& options)
{
    std::vector<Entry> entries;
    for (std::string& path : collectFiles(options.paths, options.output))
        entries.push_back({std::move(path), Unresolved{}});
    if (entries.empty())
        throw std::runtime_error("no pictures found (.jpg, .jpeg, .png)");
    return entries;
}

void requireWorker(const std::string& path)
{
    if (access(path.c_str(), X_OK) != 0)
        throw std::runtime_error("no worker program at " + path + "; name it with --worker");
}

void writeReport(OutputFile& file, const std::string& text)
{
    std::fwrite(text.data(), 1, text.size(), file.stream());
    file.keep();
}

std::size_t countFailures(const std::vector<Entry>& entries)
{
    return static_cast<std::size_t>(
        std::count_if(entries.begin(), entries.end(), [](const Entry& entry) {
            return !std::holds_alternative<DecodedPicture>(entry.outcome);
        }));
}

int run(const Options& options)
{
    // Whatever can be refused is refused before the work begins.
    std::vector<Entry> entries = entriesFor(options);
    requireWorker(options.pool.worker);
    Font font(options.font, letterHeight(options.edge));
    const Layout layout = layOut(entries.size(), options.columns, options.edge, font);
    if (options.report == options.output)
        throw std::runtime_error("the picture and its report cannot both be " + options.output);
    OutputFile pictureFile(options.output);
    OutputFile reportFile(options.report);

    watchForStopSignals();
    const auto start = std::chrono::steady_clock::now();
    Progress progress(!options.quiet);
    const HostLog log(progress, options.verbose);
    const RunEnd how = decodeAll(entries, options.edge, options.pool, progress);
    progress.clear();
    if (how == RunEnd::notStarted)
        throw std::runtime_error("the worker processes could not be started");
    if (how == RunEnd::interrupted)
        return exitSomeFailed; // leaves no files behind
    if (how == RunEnd::poolLost)
        std::fputs("contact-sheet: no worker process is left and none could be started\n", stderr);

    PngWriter writer(pictureFile.stream(), layout.size());
    drawSheet(entries, layout, font, writer);
    pictureFile.keep();
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    writeReport(reportFile, reportText(entries, {options.output, options.pool.workers, elapsed}));

    const std::size_t failures = countFailures(entries);
    if (!options.quiet)
        std::printf(
            "%zu shown, %zu failed: %s, %s\n",
            entries.size() - failures,
            failures,
            options.output.c_str(),
            options.report.c_str());
    return failures == 0 ? exitAllGood : exitSomeFailed;
}

// A stopped program dies of the signal, so that its shell sees why it ended.
void dieOfStopSignal()
{
    if (stopSignal() == 0)
        return;
    std::signal(stopSignal(), SIG_DFL);
    std::raise(stopSignal());
}

} // namespace

int main(int argc, char** argv)
{
    const ParsedOptions parsed = parseOptions(argc, argv, versionText());
    if (!parsed.options)
        return parsed.exitStatus;
    try {
        const int status = run(*parsed.options);
        dieOfStopSignal();
        return status;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "contact-sheet: %s\n", error.what());
        return exitUsage;
    }
}
