#pragma once

#include "include/nqSchedulerObserver.h"
#include "system/nqHighResTimer.h"
#include "system/nqProcess.h"

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace nq {

/// What the observer is to be told, from where it happens to where the scheduler can be called.
///
/// Whoever notes something has asked isObserved() first, so that nothing is gathered in vain. Room
/// is made ahead of each pass and launch: to note is then possible without memory, where there is
/// nobody left to tell that it failed.
class nqEventLog {
public:
    /// Null for nobody. What has not been delivered is dropped.
    void setObserver(nqSchedulerObserver* observer);

    bool isObserved() const
    {
        return mObserver != nullptr;
    }

    /// Makes room for what `workers` records can note until the next delivery. Throws without
    /// memory, and nothing is changed.
    void makeRoom(std::size_t workers);

    /// Takes a text that has to be kept; one that outlives the delivery stands in the event.
    void note(const nqSchedulerEvent& event, std::string message = {}) noexcept;

    /// Tells the observer, holding off cancellation of the thread.
    void deliver() noexcept;

private:
    struct Entry {
        nqSchedulerEvent mEvent;
        std::string mMessage;
    };

    nqSchedulerObserver* mObserver = nullptr;
    std::vector<Entry> mEntries; // in the order in which they happened
};

/// What a timer shows now.
std::chrono::microseconds timeOn(const nqHighResTimer& timer);

/// Fills in how a process ended.
void setProcessEnd(nqSchedulerEvent& event, const std::optional<nqProcess::End>& end);

} // namespace nq
