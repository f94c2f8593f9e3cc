// The number of workers is limited by the number of hardware threads. This definition stands in
// front of the platform library's own, since an executable's symbols come first in the search.
#include <nqSystemUtils.h>

namespace nq {

int nqSystemUtils::GetIdealThreadCount()
{
    return 1024;
}

} // namespace nq
