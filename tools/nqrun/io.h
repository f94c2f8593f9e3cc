#pragma once

#include "tools/nqrun/descriptor.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace nqrun {

/// The text of errno now.
std::string lastError();

/// Writes all of it, waiting where it has to. False with errno when that is not possible.
bool writeAll(int descriptor, std::string_view bytes);

/// Reads exactly so many bytes. False at the end of the stream, and with errno when it fails.
bool readAll(int descriptor, void* bytes, std::size_t count);

/// At most `count` bytes of a file from `offset` on; fewer at its end, and when it cannot be read.
std::string readAt(int descriptor, std::uint64_t offset, std::size_t count);

/// The whole of a small file, of /proc say; empty when it cannot be read.
std::string contentOf(const std::string& path);

/// A file without a name in the folder for temporary files, on disk unless that is in memory.
/// Throws Error.
Descriptor makeTemporaryFile();

/// The folder for temporary files: $TMPDIR, or /tmp.
std::string temporaryFolder();

/// Writes a file under a temporary name beside `path` and renames it, so that it is there whole or
/// not at all. Throws Error.
void writeWhole(const std::string& path, std::string_view content, unsigned mode);

/// Throws Error, which calls the file `name`, for a `result` of fsync(), fdatasync() or syncfs()
/// that says that the disk has not taken all. A file that cannot be synced at all is no error.
void checkSync(int result, const std::string& name);

/// Has a file, called `name`, for this process alone until it ends. Processes that it starts have
/// no part in that, not even before they call exec(), unlike with flock(). Throws Error.
void lockFile(int descriptor, const std::string& name);

} // namespace nqrun
