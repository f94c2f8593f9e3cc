#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>

namespace nq {

/// Writes all of it, without signals. 0, or an errno.
int writeAll(int descriptor, std::string_view content);

/// Makes or replaces a file: under its name, it is there as a whole or not at all. The content
/// stands in `path` and ".part" meanwhile. `mode` is less what the umask says. 0, or an errno; the
/// file is as before then.
int replaceFile(const std::string& path, std::string_view content, mode_t mode);

} // namespace nq
