#include "tests/chaos/board.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <system_error>
#include <unistd.h>

namespace chaos {

namespace {

[[noreturn]] void fail(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

std::int64_t now()
{
    constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * nanosecondsPerSecond + time.tv_nsec;
}

BoardMapping::BoardMapping()
    : mFd(memfd_create("chaos-board", MFD_CLOEXEC))
{
    // Fresh pages are zeros, which is what every entry starts with.
    if (mFd == -1 || ftruncate(mFd, sizeof(Board)) != 0)
        fail("no board");
    map();
}

BoardMapping::BoardMapping(const std::string& path)
    : mFd(open(path.c_str(), O_RDWR | O_CLOEXEC))
{
    if (mFd == -1)
        fail(path);
    map();
}

BoardMapping::~BoardMapping()
{
    munmap(mBoard, sizeof(Board));
    close(mFd);
}

std::string BoardMapping::path() const
{
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(mFd);
}

const WorkerEntry* BoardMapping::entryOf(pid_t worker) const
{
    const std::size_t count = std::min<std::size_t>(mBoard->workerCount, Board::maxWorkers);
    for (std::size_t at = count; at-- > 0;)
        if (mBoard->workers[at].pid == worker)
            return &mBoard->workers[at];
    return nullptr;
}

void BoardMapping::map()
{
    void* memory = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED, mFd, 0);
    if (memory == MAP_FAILED)
        fail("cannot map the board");
    mBoard = static_cast<Board*>(memory);
}

} // namespace chaos
