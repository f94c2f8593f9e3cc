#include "tools/nqrun/output_slots.h"

#include "tools/nqrun/error.h"
#include "tools/nqrun/io.h"

#include <sys/mman.h>
#include <unistd.h>
#include <utility>

namespace nqrun {

CommandFiles OutputSlot::files() const
{
    return {id, ::getpid(), output.number(), error.number(), report.number()};
}

OutputSlot OutputSlots::take()
{
    if (!mFree.empty()) {
        OutputSlot slot = std::move(mFree.back());
        mFree.pop_back();
        return slot;
    }
    OutputSlot slot;
    slot.id = ++mMade;
    slot.output = makeTemporaryFile();
    slot.error = makeTemporaryFile();
    slot.report = Descriptor(::memfd_create("nqrun-report", MFD_CLOEXEC));
    if (!slot.report.isOpen())
        throw Error("no file for reports can be made: " + lastError());
    return slot;
}

void OutputSlots::giveBack(OutputSlot&& slot, bool hasContent)
{
    if (hasContent &&
        (::ftruncate(slot.output.number(), 0) != 0 || ::ftruncate(slot.error.number(), 0) != 0))
        return; // it is closed, and another one made when it is needed
    mFree.push_back(std::move(slot));
}

} // namespace nqrun
