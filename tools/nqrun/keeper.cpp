#include "tools/nqrun/keeper.h"

#include "tools/nqrun/command.h"
#include "tools/nqrun/command_run.h"
#include "tools/nqrun/io.h"
#include "tools/nqrun/process_tree.h"

#include <array>
#include <csignal>
#include <cstdint>
#include <exception>
#include <fcntl.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>

namespace nqrun {

namespace {

constexpr int socketNumber = 3; // of the keeper: the first after the standard streams

bool sendText(int socket, std::string_view text)
{
    std::uint64_t size = text.size();
    std::array<iovec, 2> parts = {
        {{&size, sizeof size}, {const_cast<char*>(text.data()), text.size()}}};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    const ssize_t sent = retryOnSignal([&] { return ::sendmsg(socket, &message, MSG_NOSIGNAL); });
    if (sent < 0)
        return false;
    // A command with many arguments may be longer than the socket's buffer.
    auto done = static_cast<std::size_t>(sent);
    while (done < sizeof size + text.size()) {
        if (done < sizeof size)
            return false; // not seen on stream sockets: the first bytes fit
        const std::string_view rest = text.substr(done - sizeof size);
        const ssize_t more =
            retryOnSignal([&] { return ::send(socket, rest.data(), rest.size(), MSG_NOSIGNAL); });
        if (more < 0)
            return false;
        done += static_cast<std::size_t>(more);
    }
    return true;
}

bool receiveText(int socket, std::string& text)
{
    std::uint64_t size = 0;
    if (!readAll(socket, &size, sizeof size))
        return false;
    text.resize(size);
    return readAll(socket, text.data(), text.size());
}

// Empty for one that is done.
std::string failureOf(std::string_view bytes, CommandRun& run)
{
    try {
        const std::optional<CommandFailure> failure = run(Command::decoded(bytes));
        return failure ? failure->encoded() : std::string();
    } catch (const std::exception& exception) {
        return CommandFailure{Report(), exception.what()}.encoded();
    }
}

[[noreturn]] void keep(int socket)
{
    // Out of the worker's session, so that no signal to its group comes here; nothing of the
    // worker's stays open, or its host would not see it end.
    ::setsid();
    ::fcntl(socket, F_SETFD, 0);
    if (socket != socketNumber)
        ::dup3(socket, socketNumber, O_CLOEXEC);
    else
        ::fcntl(socket, F_SETFD, FD_CLOEXEC);
    ::closefrom(socketNumber + 1);
    const int nothing = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int stream = 0; stream < socketNumber; ++stream)
        ::dup2(nothing, stream);
    // A file that may not grow is an error of a write. Commands get the signal back.
    ::signal(SIGXFSZ, SIG_IGN);
    if (!adoptOrphans())
        ::_exit(1);

    CommandRun run(socketNumber);
    std::string bytes;
    while (receiveText(socketNumber, bytes)) {
        const std::string failure = failureOf(bytes, run);
        if (run.isAlone() || !sendText(socketNumber, failure))
            break;
    }
    endDescendants([](pid_t, int, const rusage&) {});
    ::_exit(0);
}

} // namespace

Keeper::Keeper()
{
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
        throw std::runtime_error("no socket can be made: " + lastError());
    mSocket = Descriptor(ends[0]);
    Descriptor other(ends[1]);
    if (!adoptOrphans())
        throw std::runtime_error("descendants of commands cannot be watched: " + lastError());
    mProcess = ::fork();
    if (mProcess < 0)
        throw std::runtime_error("no process can be started: " + lastError());
    if (mProcess == 0)
        keep(other.number());
}

Keeper::~Keeper()
{
    mSocket.reset();
    retryOnSignal([&] { return ::waitpid(mProcess, nullptr, 0); });
}

std::optional<std::string> Keeper::run(std::string_view command)
{
    std::string failure;
    if (sendText(mSocket.number(), command) && receiveText(mSocket.number(), failure))
        return failure;
    endDescendants([](pid_t, int, const rusage&) {}); // the keeper's are this process's now
    return std::nullopt;
}

} // namespace nqrun
