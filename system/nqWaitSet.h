#pragma once

#include "nqExport.h"

#include <memory>

namespace nq {

/// One descriptor that has the news of many pipes, for a loop that waits for other things as well:
/// readable while one of the pipes that report to it, or the owner itself, has something to do.
///
/// Pipes come in by nqNamedPipe::reportTo(). A set outlives the pipes that report to it.
///
/// @par Threads
/// Not locked: one thread per object and its pipes. Any thread may wait for the descriptor.
///
/// @par Forked children
/// In a child of the process that made it, a set changes nothing and has no descriptor. Destroying
/// it there leaves the parent's alone.
///
/// @par Errors
/// What fails is a state. Only allocation exceptions pass through.
class NQ_API nqWaitSet {
public:
    /// Makes the descriptor. A line of the log says why there is none: the kernel has none to give,
    /// or none below FD_SETSIZE.
    nqWaitSet();
    ~nqWaitSet();

    nqWaitSet(const nqWaitSet&) = delete;
    nqWaitSet& operator=(const nqWaitSet&) = delete;

    /// Below FD_SETSIZE, close-on-exec, and the same for as long as the set lives; -1 when there is
    /// none. For poll(), select(), epoll or a toolkit's notifier, level-triggered. Borrowed: never
    /// close or read it.
    int descriptor() const;

    /// Keeps the descriptor readable, whatever the pipes do, until it is called with false.
    void setReady(bool isReady);

private:
    friend class nqNamedPipe;
    struct Private;
    std::unique_ptr<Private> mPrivate;
};

} // namespace nq
