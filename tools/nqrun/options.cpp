#include "tools/nqrun/options.h"

#include "tools/nqrun/error.h"
#include "tools/nqrun/io.h"
#include "tools/nqrun/text.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdlib>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace nqrun {

namespace {

constexpr const char* help =
    R"(usage: nqrun [OPTION...] COMMAND [ARGUMENT...] [::: ITEM... | :::: FILE...]
       nqrun status FILE
Runs COMMAND for each item: a line of standard input, an ITEM, a line of FILE.
  {} item {.} no extension  {/} no folder  {/.} neither  {//} folder  {#} index
  -j, --jobs N           so many at a time; default: one for each processor
  -0, --null             items, or with --pipe lines, end with a null byte
      --pipe             items are standard input: blocks of lines of ...
      --block SIZE       ... this size (1M), or
      --lines N          ... this number
      --shell            COMMAND is a line for /bin/sh
  -k, --keep-order       output in the order of the items
      --tag              each line of output begins with the item
  -n, --dry-run          print the commands, run nothing
  -q, --quiet            neither progress nor failures on standard error
limits and failures (TIME: 0.5, 30s, 2m, 1h; SIZE: 512M, 2G)
      --timeout TIME     end a command that takes longer, with all its children
      --memory SIZE      end one that uses more, all its children counted
      --retries N        try a failed item so often again
      --halt POLICY      never, or (soon or now),(fail, success or done)=N
      --keep-failed DIR  a script for each failed item that runs it again
long runs
      --joblog FILE      one line per attempt; --joblog-format json, parallel
      --resume           leave out what is logged; --resume-failed: but failed
      --shard I/N        each Nth item from the Ith on; auto: by Slurm array or
                         MPI launcher; auto/N: indexed job of Kubernetes
      --metrics FILE     Prometheus' text      --timeline FILE a picture, SVG
      --trace FILE       Perfetto, Chrome      --status FILE   see nqrun status
workers of nqPool
      --worker PROGRAM   items are its jobs; results: lines, or --results DIR
      --redis ADDRESS    items are jobs for workers of nq-agents, in the ...
      --queue NAME       ... queue of this name; -j: so many in it (1000)
      --password-file F  of Redis; default: $NQ_REDIS_PASSWORD_FILE
  -h, --help             and --version
exit status: 0 none failed, 1 to 100 so many, 101 more, 255 nqrun itself
)";

// What the words after the options are.
struct Words {
    std::vector<std::string> options; ///< with the command behind them
    std::string separator;            ///< ":::" or "::::"; empty: there is none
    std::vector<std::string> items;
};

Words split(int argc, const char* const* argv)
{
    Words words;
    std::vector<std::string>* current = &words.options;
    for (int at = 1; at < argc; ++at) {
        const std::string_view word = argv[at];
        const bool isLinked = word == ":::+" || word == "::::+";
        if (word == ":::" || word == "::::" || (isLinked && !words.separator.empty())) {
            if (!words.separator.empty())
                throw Error("there may be one ::: or :::: only, and all items after it");
            words.separator = word;
            current = &words.items;
        } else {
            current->emplace_back(word);
        }
    }
    return words;
}

struct Texts {
    std::string timeout;
    std::string memory;
    std::string block;
    std::string halt;
    std::string shard;
    std::string format;
    std::uint64_t lines = 0;
    bool isPipe = false;
    bool isNull = false;
    bool isHelp = false;
    bool isVersion = false;
};

void addOptions(CLI::App& app, Options& options, Texts& texts)
{
    // CLI11 would take +2, which is two more than processors elsewhere, and 010, which is eight.
    const CLI::Validator digits(
        [](const std::string& text) {
            const bool isPlain = parseNumber(text) && (text.size() == 1 || text.front() != '0');
            return isPlain ? std::string() : shown(text) + " is no plain number";
        },
        "");
    app.add_option("-j,--jobs", options.jobs)->check(CLI::Range(0u, 100'000u))->check(digits);
    app.add_flag("-0,--null", texts.isNull);
    app.add_flag("--pipe", texts.isPipe);
    app.add_option("--block", texts.block);
    app.add_option("--lines", texts.lines)
        ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 40))
        ->check(digits);
    app.add_flag("--shell", options.isShell);
    app.add_flag("-k,--keep-order", options.keepOrder);
    app.add_flag("--tag", options.hasTags);
    app.add_flag("-n,--dry-run", options.isDryRun);
    app.add_flag("-q,--quiet", options.isQuiet);
    app.add_option("--timeout", texts.timeout);
    app.add_option("--memory", texts.memory);
    app.add_option("--retries", options.retries)->check(CLI::Range(0u, 1'000'000u))->check(digits);
    app.add_option("--halt", texts.halt);
    app.add_option("--keep-failed", options.keepFailed);
    app.add_option("--joblog", options.joblog);
    app.add_option("--joblog-format", texts.format);
    app.add_flag("--resume", options.resumes);
    app.add_flag("--resume-failed", options.resumesFailed);
    app.add_option("--shard", texts.shard);
    app.add_option("--worker", options.worker);
    app.add_option("--redis", options.cluster.redis);
    app.add_option("--queue", options.cluster.queue);
    app.add_option("--password-file", options.cluster.passwordFile);
    app.add_option("--results", options.results);
    app.add_option("--metrics", options.metrics);
    app.add_option("--trace", options.trace);
    app.add_option("--timeline", options.timeline);
    app.add_option("--status", options.status);
    app.add_flag("-h,--help", texts.isHelp);
    app.add_flag("--version", texts.isVersion);
}

// CLI11 stops at the first word that is no option; one that looks like an option is unknown.
std::vector<std::string> commandOf(std::vector<std::string> rest)
{
    if (!rest.empty() && rest.front() == "--")
        rest.erase(rest.begin());
    else if (!rest.empty() && rest.front().size() > 1 && rest.front().front() == '-')
        throw Error("unknown option " + shown(rest.front()) + "; see nqrun --help");
    return rest;
}

void readTexts(const Texts& texts, Options& options)
{
    if (!texts.timeout.empty()) {
        const auto timeout = parseDuration(texts.timeout);
        if (!timeout)
            throw Error(
                "--timeout takes a time such as 0.5, 30s, 2m or 1h, not " + shown(texts.timeout));
        options.limits.timeout = *timeout;
    }
    if (!texts.memory.empty()) {
        const auto memory = parseSize(texts.memory);
        if (!memory)
            throw Error("--memory takes a size such as 512M or 2G, not " + shown(texts.memory));
        options.limits.memory = *memory;
    }
    if (!texts.block.empty()) {
        const auto block = parseSize(texts.block);
        if (!block || *block > std::uint64_t{1} << 30)
            throw Error(
                "--block takes a size such as 64K or 1M, 1G at most, not " + shown(texts.block));
        options.items.blockBytes = *block;
    }
    if (!texts.halt.empty()) {
        const auto halt = parseHalt(texts.halt);
        if (!halt)
            throw Error(
                "--halt takes never, or for example now,fail=1 (soon or now; fail, success or "
                "done), not " +
                shown(texts.halt));
        options.halt = *halt;
    }
    if (texts.format == "parallel")
        options.joblogFormat = JoblogFormat::Parallel;
    else if (!texts.format.empty() && texts.format != "json")
        throw Error("--joblog-format takes json or parallel, not " + shown(texts.format));
    options.items.blockLines = texts.lines;
    options.items.asBlocks = texts.isPipe;
    options.items.separator = texts.isNull ? '\0' : '\n';
    if (!texts.shard.empty())
        options.shard = parseShard(texts.shard, [](const std::string& name) {
            const char* const value = std::getenv(name.c_str());
            return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
        });
}

void refuse(bool isSo, const char* text)
{
    if (isSo)
        throw Error(text);
}

// Two writers of one file would leave something that nobody can read.
void refuseSameFiles(const Options& options)
{
    const std::array<std::pair<const char*, const std::string*>, 5> files = {
        {{"--joblog", &options.joblog},
         {"--metrics", &options.metrics},
         {"--trace", &options.trace},
         {"--timeline", &options.timeline},
         {"--status", &options.status}}};
    for (auto one = files.begin(); one != files.end(); ++one) {
        for (auto other = files.begin(); other != one; ++other) {
            if (!one->second->empty() && *one->second == *other->second)
                throw Error(
                    std::string(other->first) + " and " + one->first + " name the same file, " +
                    shown(*one->second));
        }
    }
}

// What agents decide, nqrun would ignore.
void refuseBesideCluster(const Options& options)
{
    if (!options.hasCluster()) {
        refuse(!options.cluster.queue.empty(), "--queue names a queue of a --redis");
        refuse(!options.cluster.passwordFile.empty(), "--password-file is that of a --redis");
        return;
    }
    refuse(options.cluster.queue.empty(), "--redis needs the --queue that the agents serve");
    refuse(
        !options.command.empty(),
        "--redis takes items only, and no command: what runs is the worker that each nq-agent was "
        "started with; give items after :::, in files after ::::, or on standard input");
    refuse(
        !options.worker.empty(),
        "--redis and --worker do not go together: what runs is the worker that each nq-agent was "
        "started with");
    refuse(options.isShell, "--redis and --shell do not go together");
    refuse(options.isDryRun, "--redis and --dry-run do not go together");
    refuse(
        options.limits.memory != 0,
        "--memory is a limit of the agents with --redis: start them with --memory-cap");
    refuse(
        !options.metrics.empty(),
        "--metrics is written by the agents with --redis: start them with their own --metrics");
    refuse(
        !options.trace.empty() || !options.timeline.empty() || !options.status.empty(),
        "--trace, --timeline and --status show workers of this machine, and do not go together "
        "with --redis; nq-agent status shows a queue");
    refuse(
        options.items.asBlocks && options.items.blockLines == 0 &&
            options.items.blockBytes > std::size_t{64} << 20,
        "--block takes 64M at most with --redis");
}

void checkTogether(const Options& options, const Texts& texts, const CLI::App& app)
{
    for (const CLI::Option* const option : app.get_options()) {
        if (option->get_expected_min() == 0 || option->count() == 0) // flags
            continue;
        for (const std::string& value : option->results())
            if (value.empty())
                throw Error(option->get_name() + " has an empty value");
    }
    refuseBesideCluster(options);
    const bool hasWorker = !options.worker.empty();
    const bool takesJobs = hasWorker || options.hasCluster();
    refuse(options.command.empty() && !takesJobs, "there is no command; see nqrun --help");
    refuse(
        options.jobs > 4096 && !options.hasCluster(),
        "--jobs takes 4096 at most; see nqrun --help");
    refuse(
        !options.command.empty() && options.command.front().empty(),
        "the command has an empty name");
    refuse(!options.command.empty() && hasWorker, "--worker takes items only, and no command");
    refuse(hasWorker && options.isShell, "--worker and --shell do not go together");
    refuse(hasWorker && options.isDryRun, "--worker and --dry-run do not go together");
    refuse(
        !takesJobs && !options.results.empty(),
        "--results is for the results of a --worker, or with --redis");
    refuse(
        !texts.isPipe && (!texts.block.empty() || texts.lines != 0),
        "--block and --lines say what --pipe is given");
    refuse(!texts.block.empty() && texts.lines != 0, "--block and --lines do not go together");
    refuse(
        texts.isPipe && options.items.arguments.has_value(),
        "--pipe reads blocks of standard input or of files after ::::");
    refuse(
        (options.resumes || options.resumesFailed) && options.joblog.empty(),
        "--resume and --resume-failed go by a --joblog");
    refuse(!texts.format.empty() && options.joblog.empty(), "--joblog-format is about a --joblog");
    refuseSameFiles(options);
}

} // namespace

const char* helpText()
{
    return help;
}

std::optional<Options>
parseOptions(int argc, const char* const* argv, const std::string& version, int& exitStatus)
{
    Words words = split(argc, argv);
    Options options;
    Texts texts;
    CLI::App app("", "nqrun");
    app.set_help_flag();
    app.prefix_command();
    addOptions(app, options, texts);
    try {
        std::vector<std::string> arguments = std::move(words.options);
        std::reverse(arguments.begin(), arguments.end()); // as it wants them
        app.parse(std::move(arguments));
    } catch (const CLI::ArgumentMismatch& error) {
        const std::string text = error.what();
        const bool isMissing = text.find("missing") != text.npos;
        throw Error(
            text.substr(0, text.find(':')) +
            (isMissing ? " needs a value" : " is given more than once") + "; see nqrun --help");
    } catch (const CLI::ParseError& error) {
        throw Error(std::string(error.what()) + "; see nqrun --help");
    }
    if (texts.isHelp || texts.isVersion) {
        if (!writeAll(STDOUT_FILENO, texts.isHelp ? help : version))
            throw Error("standard output cannot be written: " + lastError());
        exitStatus = 0;
        return std::nullopt;
    }
    options.command = commandOf(app.remaining());
    if (words.separator == ":::")
        options.items.arguments = std::move(words.items);
    else if (words.separator == "::::")
        options.items.files = std::move(words.items);
    if (words.separator == "::::" && options.items.files.empty())
        throw Error(":::: wants files to read items from");
    readTexts(texts, options);
    checkTogether(options, texts, app);
    return options;
}

} // namespace nqrun
