#pragma once

#include "tools/nqrun/finished.h"
#include "tools/nqrun/output_slots.h"

#include <cstdint>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>

namespace nqrun {

/// Nothing more can be written: the reader of standard output has gone, as `head` does, or the user
/// has lost patience with one that does not read.
class OutputClosed : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Hands what commands have printed to standard output and standard error, item by item, never
/// mixed, and with `keepOrder` in the order in which items were started.
///
/// What waits for its turn lies in one file without a name; memory holds a note for each.
class Delivery {
public:
    /// Called before anything is written, for what stands on the terminal.
    using BeforeWriting = std::function<void()>;
    /// Called when all of an item has been written.
    using OnDelivered = std::function<void(Finished&& finished)>;

    Delivery(bool keepOrder, bool hasTags, BeforeWriting before, OnDelivered after);

    /// Takes an item whose output stands in the slot. Throws Error when it cannot be written, and
    /// OutputClosed.
    void take(Finished&& finished, const OutputSlot& slot);

    /// The same for output that is in memory, all of it for standard output.
    void take(Finished&& finished, std::string_view output);

    /// An item of that ordinal will not come; nobody waits for it any longer.
    void skip(std::uint64_t ordinal);

    /// Delivers what waits, with gaps where items have not come.
    void flush();

    /// Items that wait for their turn.
    std::size_t waiting() const
    {
        return mWaiting.size();
    }

    /// A line of nqrun's own for standard error, which is not mixed into the output either.
    void say(const std::string& line);

    /// Ends a line that a command has left open, so that one of nqrun's own may follow.
    void beginLine();

private:
    struct Source {
        int output = -1;
        std::uint64_t outputOffset = 0;
        int error = -1;
        std::uint64_t errorOffset = 0;
    };
    struct Waiting {
        Finished finished;
        std::uint64_t offset = 0; ///< in the file of those that wait
        bool isSkipped = false;
    };

    void deliver(Finished&& finished, const Source& source);
    void hold(Finished&& finished, const Source& source);
    void keep(std::string_view bytes);
    void wait(Finished&& finished, std::uint64_t offset);
    void deliverHeld(Waiting&& waiting);
    void releaseInTurn();
    void copy(int from, std::uint64_t offset, std::uint64_t count, int to, const std::string& tag);
    void write(int to, std::string_view bytes);
    static void awaitRoom(int to);
    void freeHeld(std::uint64_t offset, std::uint64_t count);

    const bool mKeepOrder;
    const bool mHasTags;
    const BeforeWriting mBefore;
    const OnDelivered mAfter;
    std::map<std::uint64_t, Waiting> mWaiting; ///< by ordinal
    std::uint64_t mNext = 0;                   ///< the ordinal whose turn it is
    Descriptor mHeld;                          ///< the output of those that wait
    std::uint64_t mHeldBytes = 0;              ///< end of that file
    const bool mIsOneTerminal;  ///< both streams, so that each sees what the other has left open
    bool mIsAtLineStart = true; ///< standard error
};

} // namespace nqrun
