#pragma once

#include "nqExport.h"

#include <string>

namespace nq {

/// Path texts in UTF-8. Purely textual apart from asking for the current directory: nothing is
/// looked up, no symbolic link is resolved, no ".." is folded. Texts are returned as copies.
/// Nothing blocks, and nothing here throws but allocation. Any thread may call.
class NQ_API nqDirUtils {
public:
    /// `path` itself when it starts with '/', else the current directory, '/', and `path`. An empty
    /// path, or a relative one while the current directory no longer exists, gives an empty text.
    static std::string GetAbsolutePathUtf8(const std::string& path);

    /// All of `path` before its last '/': "/a/b" gives "/a", "/a" gives "/", a path without '/'
    /// gives an empty text.
    static std::string ExtractFolder(const std::string& path);

    /// The process's current directory; an empty text when it has been removed or cannot be read.
    static std::string GetCurrentWorkingDirUtf8();
};

} // namespace nq
