#include "examples/contact_sheet/options.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <thread>

#include <CLI/CLI.hpp>

namespace sheet {

namespace {

constexpr const char* description = "Draws one picture with small versions of many. Each file is "
                                    "decoded in a worker process of its\n"
                                    "own, so that a file which crashes the decoder, takes too long "
                                    "or eats memory costs one red tile\n"
                                    "and nothing else.";

constexpr const char* footer =
    "Sizes are bytes, or take a unit: 512M, 2G.\n"
    "Exit status: 0 when every file is shown, 1 when some are not (the red tiles and the report "
    "tell\n"
    "which and why), 2 when the command line is wrong or nothing could be started or written.";

constexpr const char* workerName = "contact-sheet-worker";

std::string workerBesideThisProgram()
{
    std::error_code ignored;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ignored);
    return (self.parent_path() / workerName).string();
}

unsigned long defaultWorkers()
{
    return std::max(std::thread::hardware_concurrency(), 2u);
}

void addPoolOptions(CLI::App& app, PoolLimits& pool)
{
    const CLI::AsSizeValue bytes(false);
    app.add_option("-j,--workers", pool.workers, "Worker processes to use")
        ->check(CLI::Range(1, 1000)) // the pool has a limit of its own, by processors
        ->capture_default_str();
    app.add_option("--timeout", pool.timeoutSeconds, "Whole seconds that one file may take")
        ->check(CLI::Range(1, 24 * 3600))
        ->capture_default_str();
    app.add_option("--memory", pool.memory, "Memory in use at which a worker is killed; 0: none")
        ->transform(bytes)
        ->default_str("1G");
    app.add_option(
           "--memory-after",
           pool.memoryAfterJob,
           "Memory in use after a file at which a worker is replaced; 0: none")
        ->transform(bytes)
        ->default_str("512M");
    app.add_option(
           "--allocation", pool.allocation, "Memory that a worker can allocate at all; 0: no limit")
        ->transform(bytes)
        ->default_str("0");
    app.add_option(
           "--worker", pool.worker, "The worker's executable, instead of the one beside this")
        ->check(CLI::ExistingFile);
}

void addSheetOptions(CLI::App& app, Options& options)
{
    app.add_option("-s,--size", options.edge, "Edge of a tile in pixels")
        ->check(CLI::Range(32, 4096))
        ->capture_default_str();
    app.add_option(
           "-c,--columns", options.columns, "Tiles in a row; 0: a sheet as wide as a screen")
        ->check(CLI::Range(0, 10'000))
        ->capture_default_str();
    app.add_option("-r,--report", options.report, "Where the report goes  [OUT.json]");
    app.add_option("--font", options.font, "A font file, instead of this machine's sans-serif font")
        ->check(CLI::ExistingFile);
    app.add_flag("-q,--quiet", options.quiet, "Print nothing but errors");
    app.add_flag("-v,--verbose", options.verbose, "Print what the worker pool logs");
}

void addPaths(CLI::App& app, Options& options)
{
    app.add_option("OUT.png", options.output, "The picture to write")->required();
    app.add_option("PATH", options.paths, "Files, and folders to search for .jpg, .jpeg and .png")
        ->required();
}

std::string reportBeside(const std::string& output)
{
    return std::filesystem::path(output).replace_extension(".json").string();
}

} // namespace

ParsedOptions parseOptions(int argc, const char* const* argv, const std::string& versionText)
{
    Options options;
    options.pool.workers = defaultWorkers();
    CLI::App app(description, "contact-sheet");
    app.footer(footer);
    app.set_version_flag("--version", versionText);
    addPaths(app, options);
    addSheetOptions(app, options);
    addPoolOptions(app, options.pool);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return {std::nullopt, app.exit(error) == 0 ? exitAllGood : exitUsage};
    }
    if (options.pool.worker.empty())
        options.pool.worker = workerBesideThisProgram();
    if (options.report.empty())
        options.report = reportBeside(options.output);
    return {options, exitAllGood};
}

} // namespace sheet
