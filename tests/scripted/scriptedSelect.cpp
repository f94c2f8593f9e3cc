#include "tests/scripted/scriptedMachine.h"

#include <sys/select.h>

namespace {

std::vector<int> members(const fd_set* set)
{
    std::vector<int> descriptors;
    for (int descriptor = 0; set != nullptr && descriptor < FD_SETSIZE; ++descriptor) {
        if (FD_ISSET(descriptor, set))
            descriptors.push_back(descriptor);
    }
    return descriptors;
}

} // namespace

// The linker sends every call of select in the tested objects here.
// NOLINTBEGIN(bugprone-reserved-identifier): the linker's --wrap option sets the name.
extern "C" int
__wrap_select(int count, fd_set* readSet, fd_set* writeSet, fd_set* exceptionSet, timeval* timeout)
// NOLINTEND(bugprone-reserved-identifier)
{
    scripted::Select select;
    select.count = count;
    select.readSet = members(readSet);
    select.hasWriteSet = writeSet != nullptr;
    select.exceptionSet = members(exceptionSet);
    if (timeout != nullptr) {
        select.seconds = timeout->tv_sec;
        select.microseconds = timeout->tv_usec;
    }
    scripted::machine().call("select()");
    scripted::machine().selects.push_back(select);
    return scripted::machine().onSelect ? scripted::machine().onSelect() : 0;
}
