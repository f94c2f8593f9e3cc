#pragma once

#include <cstddef>

/// What the shim knows about its process: whose calls it watches, and which of them go wrong.
///
/// A process obeys NQ_FAULT_HOST when it is the fault host and NQ_FAULT_WORKER when it is a fault
/// worker, and in either case NQ_FAULT_KERNEL, which makes another kernel of this one and counts as
/// no fault. Any other program runs undisturbed. Each holds faults separated by semicolons:
///
///     LIBRARY+OFFSET SELECTOR FIRST COUNT ACTION VALUE
///
/// LIBRARY is a file name and OFFSET the hexadecimal return address of a call in it. SELECTOR is
/// the number that the call chooses its operation by, or -1 for any. The FIRST-th such call of a
/// process and the COUNT - 1 after it (0: all after it) are disturbed. ACTION says how, and VALUE
/// which error number or length goes with it. Only the first faultyWorkers workers of a run are
/// disturbed, so that a host that carries on finds sound ones in the end. For what shortens, only
/// calls with a larger length count.
///
/// NQ_FAULT_REPORT names a file that all processes of one run map and count in, so that what a
/// killed process has done is known too; NQ_FAULT_COUNT says whether the calls of the "host" or of
/// the "worker"s are counted.
namespace faults {

enum class Action {
    none,      // the call is made as it is
    fail,      // it is not made, and fails with an error number
    failAfter, // it is made, and then reported as failed
    hangUp,    // the connection ends for both of its ends, and then the call fails
    shorten,   // it is made with a smaller length
};

struct Verdict {
    Action mAction = Action::none;
    int mValue = 0;        // error number or length
    bool mIsFault = false; // and not a trait of the kernel
};

/// Counts one call that returns to `returnAddress`, and says what becomes of it. `length` is what a
/// call that moves bytes offers. Makes no system call and allocates nothing: the child between
/// vfork and exec comes here too.
Verdict verdictOn(const void* returnAddress, int selector, std::size_t length = 0);

/// Notes that the verdict was really carried out.
void noteInjection(const Verdict& verdict);

} // namespace faults
