#include "tests/cluster/redisServer.h"

#include "tests/common/processes.h"
#include "tests/common/waiting.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <poll.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <unistd.h>

namespace cluster {

namespace {

std::string textOf(const redisReply& reply)
{
    if (reply.type == REDIS_REPLY_INTEGER)
        return std::to_string(reply.integer);
    if (reply.type != REDIS_REPLY_ARRAY)
        return reply.str == nullptr ? std::string() : std::string(reply.str, reply.len);
    std::string text;
    for (std::size_t i = 0; i < reply.elements; ++i)
        text += textOf(*reply.element[i]) + '\n';
    return text;
}

std::vector<char*> pointersOf(std::vector<std::string>& words)
{
    std::vector<char*> pointers;
    for (std::string& word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace

Program::Program(
    const std::vector<std::string>& command, const std::vector<std::string>& environment)
{
    std::vector<std::string> words = command;
    std::vector<std::string> settings = environment;
    for (char** each = ::environ; *each != nullptr; ++each)
        settings.emplace_back(*each);
    const std::vector<char*> arguments = pointersOf(words);
    const std::vector<char*> variables = pointersOf(settings);
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error("no pipe");
    mPid = ::fork();
    if (mPid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(ends[1], STDOUT_FILENO);
        ::dup2(ends[1], STDERR_FILENO);
        ::execvpe(arguments[0], arguments.data(), variables.data());
        ::_exit(127);
    }
    ::close(ends[1]);
    mOutput = ends[0];
}

Program::~Program()
{
    if (mPid > 0) {
        ::kill(mPid, SIGKILL);
        common::waitForExitCode(mPid);
    }
    ::close(mOutput);
}

void Program::signal(int number) const
{
    if (mPid > 0)
        ::kill(mPid, number);
}

bool Program::readSome(int timeoutMs)
{
    pollfd source{mOutput, POLLIN, 0};
    if (::poll(&source, 1, timeoutMs) <= 0)
        return false;
    char buffer[4096];
    const ssize_t got = ::read(mOutput, buffer, sizeof(buffer));
    if (got <= 0)
        return false;
    mPrinted.append(buffer, static_cast<std::size_t>(got));
    return true;
}

bool Program::says(const std::string& text)
{
    const auto end = std::chrono::steady_clock::now() + common::generousLimit;
    while (mPrinted.find(text) == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !readSome(static_cast<int>(left.count())))
            return false;
    }
    return true;
}

const std::string& Program::printed()
{
    while (readSome(0)) {
    }
    return mPrinted;
}

int Program::wait()
{
    if (mPid <= 0)
        return -1;
    while (readSome(-1)) { // until it closes its streams, with its workers
    }
    const int code = common::waitForExitCode(mPid);
    mPid = -1;
    return code;
}

RedisServer::RedisServer(
    const std::vector<std::string>& options, const std::vector<std::string>& environment)
    : mOptions(options),
      mEnvironment(environment)
{
    start();
}

std::string RedisServer::socket() const
{
    return mFolder.file("redis.sock");
}

std::string RedisServer::url() const
{
    return "unix:" + socket();
}

void RedisServer::kill()
{
    mProgram.reset();
    ::unlink(socket().c_str());
}

void RedisServer::start()
{
    std::vector<std::string> command{
        "redis-server",
        "--port",
        "0",
        "--unixsocket",
        socket(),
        "--dir",
        mFolder.path(),
        "--save",
        "",
        "--daemonize",
        "no",
        "--appendfsync",
        "everysec",
        "--maxmemory-policy",
        "noeviction"};
    command.insert(command.end(), mOptions.begin(), mOptions.end());
    mProgram = std::make_unique<Program>(command, mEnvironment);
    if (!mProgram->says("eady to accept connections")) // with a capital or not, by its version
        throw std::runtime_error("Redis does not start: " + mProgram->printed());
}

void RedisServer::signal(int number) const
{
    mProgram->signal(number);
}

std::string RedisServer::ask(const std::vector<std::string>& command) const
{
    const std::unique_ptr<redisContext, void (*)(redisContext*)> context(
        ::redisConnectUnix(socket().c_str()), ::redisFree);
    std::vector<const char*> words;
    std::vector<std::size_t> sizes;
    for (const std::string& word : command) {
        words.push_back(word.data());
        sizes.push_back(word.size());
    }
    const std::unique_ptr<redisReply, void (*)(void*)> reply(
        static_cast<redisReply*>(::redisCommandArgv(
            context.get(), static_cast<int>(words.size()), words.data(), sizes.data())),
        ::freeReplyObject);
    return reply == nullptr ? "no answer" : textOf(*reply);
}

bool RedisServer::isInstalled()
{
    return ::access("/usr/bin/redis-server", X_OK) == 0;
}

} // namespace cluster
