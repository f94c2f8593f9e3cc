#pragma once

#include "nqExport.h"

namespace nq {

/// Owns one descriptor of the platform, which somebody may take over, and closes it otherwise.
///
/// Nothing here throws or blocks.
class NQ_API nqOwnedDescriptor {
public:
    /// Takes `descriptor` over; -1 is none.
    explicit nqOwnedDescriptor(int descriptor = -1) noexcept;
    /// Takes the descriptor over.
    nqOwnedDescriptor(nqOwnedDescriptor&& other) noexcept;
    /// Closes its own and takes the other over.
    nqOwnedDescriptor& operator=(nqOwnedDescriptor&& other) noexcept;
    ~nqOwnedDescriptor();

    /// -1 when there is none.
    int get() const noexcept;

    /// Gives it up to the caller, who closes it.
    int release() noexcept;

private:
    int mDescriptor;
};

} // namespace nq
