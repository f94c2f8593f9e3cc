#include "options.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <filesystem>

namespace sheet {

std::optional<Options> parseOptions(int argc, char* argv[], int& status)
{
    Options options;
    CLI::App app(
        "Draws small versions of many pictures (JPEG, PNG, PPM) on sheets. Each file is\n"
        "decoded in a worker process: one that crashes the decoder, hangs it or eats\n"
        "memory costs a red tile and nothing else.\n",
        "contact-sheet");
    app.footer("Beside the sheet, a report in JSON says what became of each file: sheet.json.\n"
               "Exit status: 0 every file is shown; 1 some are not; 2 nothing could be done.");
    app.get_formatter()->column_width(30);
    app.get_formatter()->label("REQUIRED", "");
    app.set_help_flag("-h,--help", "Show this");

    // The range of a number is told when it is left, and does not clutter the help.
    const auto number =
        [&app](const char* name, auto& value, const char* what, auto least, auto most) {
            app.add_option(name, value, what)
                ->type_name("N")
                ->check(CLI::Range(least, most).description(""))
                ->capture_default_str();
        };
    const auto isPng = [](const std::string& path) {
        return std::filesystem::path(path).extension() == ".png" ? "" : "a sheet is a .png file";
    };
    app.add_option("PATH", options.paths, "Pictures, and folders of pictures")
        ->required()
        ->type_name("");
    app.add_option("-o,--output", options.output, "The sheet; if several, sheet-1.png, ...")
        ->type_name("FILE")
        ->check(CLI::Validator(isPng, ""))
        ->capture_default_str();
    app.add_option("-t,--title", options.title, "Its title, instead of \"Contact sheet\"")
        ->type_name("TEXT");
    number("--tile", options.tileWidth, "Width of a tile in pixels", 64, 2048);
    number("--columns", options.columns, "Tiles in a row", 1, 100);
    number("--rows", options.rows, "Rows on a sheet at most", 1, 100);
    number("--timeout", options.timeout, "Seconds for one file, such as 2.5", 0.001, 86400.0);
    number("--memory", options.memory, "Megabytes for one worker", 16, 1 << 20);
#ifdef CONTACT_SHEET_CLUSTER
    app.add_option("--redis", options.redis, "Redis's address")->required()->type_name("ADDRESS");
    app.add_option("--queue", options.queue, "The agents' queue")->required()->type_name("NAME");
#else
    number("-j,--workers", options.workers, "Worker processes; 0: one a processor", 0U, 1000U);
    app.add_option("--keep", options.keep, "Keep what failed, to run it by hand")
        ->type_name("FOLDER")
        ->check(CLI::Validator(CLI::ExistingDirectory).description(""));
    app.add_option("--timeline", options.timeline, "Draw the run: who did what when")
        ->type_name("FILE");
#endif
    try {
        app.parse(argc, argv);
        if (std::isnan(options.timeout)) // which passes for a number of every range
            throw CLI::ValidationError("--timeout", "Value nan is not a number of seconds");
    } catch (const CLI::ParseError& error) {
        status = app.exit(error) == 0 ? 0 : exitUsage;
        return std::nullopt;
    }
    return options;
}

} // namespace sheet
