#include "tools/nqrun/status_view.h"

#include "tools/nqrun/error.h"
#include "tools/nqrun/io.h"
#include "tools/nqrun/process_tree.h"
#include "tools/nqrun/stop_signals.h"
#include "tools/nqrun/text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace nqrun {

namespace {

using Status = nq::nqPoolStatus;

constexpr int refreshEveryMs = 500;
constexpr std::size_t usualRows = 24;
constexpr std::size_t usualColumns = 80;

std::string cut(const std::string& line, std::size_t columns)
{
    return columns == 0 ? line : shown(line, columns);
}

std::string padded(const std::string& text, std::size_t width)
{
    return text.size() < width ? std::string(width - text.size(), ' ') + text : text;
}

std::string headline(const Status& status, std::chrono::duration<double> age, bool isHostAlive)
{
    std::string line = status.name.empty() ? "pool" : shown(status.name);
    line += " (pid " + std::to_string(status.host) + "): ";
    if (status.state == Status::State::Ended)
        return line + "ended " + durationText(age) + " ago";
    if (!isHostAlive)
        return line + "was killed; last heard of " + durationText(age) + " ago";
    return line + "runs for " + durationText(status.statistics.age) + ", seen " +
           durationText(age) + " ago";
}

std::string counts(const Status& status)
{
    const nq::nqPoolStatistics& statistics = status.statistics;
    std::string line = std::to_string(statistics.done) + " done, " +
                       std::to_string(statistics.failed) + " failed, " +
                       std::to_string(statistics.running) + " running, " +
                       std::to_string(statistics.queued) + " waiting";
    if (statistics.retried != 0)
        line += ", " + std::to_string(statistics.retried) + " tried again";
    if (status.state == Status::State::Running) {
        std::array<char, 32> rate{};
        std::snprintf(rate.data(), rate.size(), ", %.1f/s", statistics.donePerSecond);
        line += rate.data();
        if (status.timeLeft)
            line += ", " + durationText(*status.timeLeft) + " left";
    }
    return line;
}

bool isAlive(std::int64_t pid)
{
    return pid > 0 && (::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
}

Status readStatus(const std::string& file)
{
    try {
        return nq::readPoolStatus(file);
    } catch (const nq::nqPoolError& error) {
        throw Error(error.what());
    }
}

// Overwrites what was shown before, line by line, and takes away what is left of it.
class Screen {
public:
    void show(const std::string& text)
    {
        std::string drawing;
        if (mLines > 0)
            drawing = "\x1b[" + std::to_string(mLines) + "A";
        mLines = 0;
        for (std::size_t begin = 0; begin < text.size() && mLines + 1 < rows();) {
            const std::size_t end = text.find('\n', begin);
            drawing += text.substr(begin, end - begin) + "\x1b[K\n";
            begin = end + 1;
            ++mLines;
        }
        writeAll(STDOUT_FILENO, drawing + "\x1b[J");
    }

    static std::size_t columns()
    {
        winsize size{};
        return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col
                                                                                 : usualColumns;
    }

private:
    static std::size_t rows()
    {
        winsize size{};
        return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 ? size.ws_row
                                                                                 : usualRows;
    }

    std::size_t mLines = 0;
};

} // namespace

std::string statusText(
    const Status& status,
    std::chrono::system_clock::time_point now,
    bool isHostAlive,
    const WorkerMemory& memory,
    std::size_t columns)
{
    const std::chrono::duration<double> age =
        std::max(now - status.written, std::chrono::system_clock::duration::zero());
    std::string text = cut(headline(status, age, isHostAlive), columns) + '\n';
    text += cut(counts(status), columns) + '\n';
    if (!status.problem.empty())
        text += cut("problem: " + status.problem, columns) + '\n';
    if (status.workers.empty() || !isHostAlive || status.state == Status::State::Ended)
        return text;
    text += cut("worker      pid      time    memory  item", columns) + '\n';
    for (const nq::nqPoolWorkerStatus& worker : status.workers) {
        std::string line = padded(std::to_string(worker.number), 6) + ' ' +
                           padded(std::to_string(worker.pid), 8) + ' ';
        if (worker.job == 0)
            line += padded("idle", 9);
        else // it has gone on since it was written
            line += padded(durationText(std::chrono::duration<double>(worker.timeInJob) + age), 9);
        line += ' ' + padded(sizeText(memory(worker)), 9) + "  ";
        if (worker.job != 0)
            line +=
                worker.label.empty() ? "job " + std::to_string(worker.job) : shown(worker.label);
        text += cut(line, columns) + '\n';
    }
    return text;
}

int showStatus(const std::string& file)
{
    const bool isTerminal = ::isatty(STDOUT_FILENO) == 1;
    const WorkerMemory memory = [](const nq::nqPoolWorkerStatus& worker) {
        const auto pid = static_cast<pid_t>(worker.pid);
        return std::max(worker.residentMemory, residentMemory(pid, true, worker.residentMemory));
    };
    Screen screen;
    StopSignals::watch();
    for (;;) {
        const Status status = readStatus(file);
        const bool isHostAlive = isAlive(status.host);
        const std::string text = statusText(
            status,
            std::chrono::system_clock::now(),
            isHostAlive,
            memory,
            isTerminal ? Screen::columns() - 1 : 0);
        if (!isTerminal) {
            if (!writeAll(STDOUT_FILENO, text))
                throw Error("standard output cannot be written: " + lastError());
            return 0;
        }
        screen.show(text);
        if (status.state == Status::State::Ended || !isHostAlive)
            return 0;
        pollfd stop{StopSignals::descriptor(), POLLIN, 0};
        if (::poll(&stop, 1, refreshEveryMs) > 0)
            return 0;
    }
}

} // namespace nqrun
