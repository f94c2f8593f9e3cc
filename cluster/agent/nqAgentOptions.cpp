#include "cluster/agent/nqAgentOptions.h"

#include "pool/include/nqPool.h"

#include <array>
#include <cstdlib>
#include <getopt.h>
#include <iostream>
#include <string_view>
#include <thread>

namespace nq {

namespace {

constexpr char usage[] =
    R"(usage: nq-agent --redis ADDRESS --queue NAME [OPTION...] -- WORKER [ARGUMENT...]
       nq-agent status --redis ADDRESS --queue NAME

Takes jobs from a queue in Redis and runs them in worker processes on this machine. SIGTERM lets it
finish what runs and hand back the rest; a second one ends it. `status` shows the queue and its agents.

  --redis ADDRESS       redis://[USER@]HOST[:PORT][/DATABASE] or unix:PATH
  --password-file FILE  holds the password; otherwise the environment's NQ_REDIS_PASSWORD_FILE names
                        the file, or NQ_REDIS_PASSWORD holds the password
  --queue NAME          of the jobs
  --workers N           worker processes; default: one for each processor
  --prefetch N          jobs to hold beyond those that run; default: by how fast they end
  --lease SECONDS       others take over this agent's jobs that long after its last sign of life;
                        default: 10
  --start-timeout SECONDS
                        a worker that has not connected by then is killed; default: 10
  --job-timeout SECONDS of a job that has none of its own; default: none
  --memory-cap MB       of resident memory for a worker; default: none
  --keep-failed FOLDER  keeps the bytes of failed jobs there
  --plain               the worker is one of nqWorker, or in another language
  --name NAME           of this agent; no other may have it
  --metrics FILE        is written every second, in Prometheus's text format
)";

enum Option : int {
    Redis = 1000,
    PasswordFile,
    Queue,
    Workers,
    Prefetch,
    Lease,
    StartTimeout,
    JobTimeout,
    MemoryCap,
    KeepFailed,
    Plain,
    Name,
    Metrics,
    Help
};

constexpr std::array<option, 15> longOptions{{
    {"redis", required_argument, nullptr, Redis},
    {"password-file", required_argument, nullptr, PasswordFile},
    {"queue", required_argument, nullptr, Queue},
    {"workers", required_argument, nullptr, Workers},
    {"prefetch", required_argument, nullptr, Prefetch},
    {"lease", required_argument, nullptr, Lease},
    {"start-timeout", required_argument, nullptr, StartTimeout},
    {"job-timeout", required_argument, nullptr, JobTimeout},
    {"memory-cap", required_argument, nullptr, MemoryCap},
    {"keep-failed", required_argument, nullptr, KeepFailed},
    {"plain", no_argument, nullptr, Plain},
    {"name", required_argument, nullptr, Name},
    {"metrics", required_argument, nullptr, Metrics},
    {"help", no_argument, nullptr, Help},
    {nullptr, 0, nullptr, 0},
}};

[[noreturn]] void refuse(const std::string& what)
{
    throw nqPoolError(what + "; see nq-agent --help");
}

/// Of seconds, megabytes or things, between two bounds.
double numberOf(const char* text, double least, double most, const char* name)
{
    char* end = nullptr;
    const double number = std::strtod(text, &end);
    if (end == text || *end != '\0' || !(number >= least && number <= most))
        refuse(std::string("--") + name + " cannot be " + text);
    return number;
}

std::chrono::milliseconds timeOf(const char* text, double least, const char* name)
{
    constexpr double longest = 1e7; // seconds
    return std::chrono::milliseconds(
        static_cast<std::int64_t>(numberOf(text, least, longest, name) * 1000));
}

} // namespace

std::optional<nqAgentOptions> nqAgentOptions::parse(int argc, char* argv[])
{
    nqAgentOptions options;
    if (argc > 1 && std::string_view(argv[1]) == "status") {
        options.isStatusWanted = true;
        argv[1] = argv[0];
        ++argv;
        --argc;
    }
    ::opterr = 0;
    for (;;) {
        // The words of the worker come after "--" or the first that is no option.
        const int found = ::getopt_long(argc, argv, "+", longOptions.data(), nullptr);
        if (found == -1)
            break;
        switch (found) {
        case Redis:
            options.redis = ::optarg;
            break;
        case PasswordFile:
            options.passwordFile = ::optarg;
            break;
        case Queue:
            options.queue = ::optarg;
            break;
        case Workers:
            options.pool.workers = static_cast<unsigned>(numberOf(::optarg, 1, 1000, "workers"));
            break;
        case Prefetch:
            options.prefetch = static_cast<std::size_t>(numberOf(::optarg, 0, 1e5, "prefetch"));
            break;
        case Lease:
            options.lease = timeOf(::optarg, 0.5, "lease");
            break;
        case StartTimeout:
            options.pool.connectionTimeout = timeOf(::optarg, 0.1, "start-timeout");
            break;
        case JobTimeout:
            options.pool.jobTimeout = timeOf(::optarg, 0, "job-timeout");
            break;
        case MemoryCap:
            options.pool.memoryCap =
                static_cast<std::uint64_t>(numberOf(::optarg, 0, 1e9, "memory-cap") * 1024 * 1024);
            break;
        case KeepFailed:
            options.pool.keepFailedJobs = ::optarg;
            break;
        case Plain:
            options.pool.plainWorker = true;
            break;
        case Name:
            options.name = ::optarg;
            break;
        case Metrics:
            options.metrics = ::optarg;
            break;
        case Help:
            std::cout << usage;
            return std::nullopt;
        default:
            refuse(
                std::string("The option ") + argv[::optind - 1] +
                " is not known, or lacks a value");
        }
    }
    if (options.redis.empty() || options.queue.empty())
        refuse("--redis and --queue are needed");
    if (options.isStatusWanted)
        return options;
    if (::optind == argc)
        refuse("The worker program is missing");
    options.pool.worker = argv[::optind];
    options.pool.arguments.assign(argv + ::optind + 1, argv + argc);
    if (options.pool.workers == 0)
        options.pool.workers = std::max(1U, std::thread::hardware_concurrency());
    return options;
}

} // namespace nq
