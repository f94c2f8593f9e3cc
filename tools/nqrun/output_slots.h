#pragma once

#include "tools/nqrun/command.h"
#include "tools/nqrun/descriptor.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace nqrun {

/// The files of one command that runs: what it prints goes straight to disk, without a name there,
/// so that nothing of it takes memory or is left behind.
struct OutputSlot {
    std::uint64_t id = 0;
    Descriptor output;
    Descriptor error;
    Descriptor report; ///< in memory

    CommandFiles files() const;
};

/// Lends slots, and lends them again.
class OutputSlots {
public:
    /// An empty one. Throws Error when no file can be made.
    OutputSlot take();

    /// Takes one back; what was written to it has been read.
    void giveBack(OutputSlot&& slot, bool hasContent);

private:
    std::vector<OutputSlot> mFree;
    std::uint64_t mMade = 0;
};

} // namespace nqrun
