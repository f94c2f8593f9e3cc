#pragma once

#include "examples/contact_sheet/decode.h"

#include <cstdint>
#include <cstdio>

namespace sheet {

/// The two formats behind decodeToFit. `file` is at its first byte and stays the caller's.
DecodedPicture decodeJpeg(std::FILE* file, std::uint32_t edge);
DecodedPicture decodePng(std::FILE* file, std::uint32_t edge);

} // namespace sheet
