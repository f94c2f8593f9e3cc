#pragma once

#include <cstddef>
#include <cstdint>

namespace sheet {

/// The orientation mark in the EXIF block of a JPEG file (the payload of its APP1 marker), 1 to 8.
/// A block that is no EXIF, is damaged or has no mark gives 1, which is upright.
int exifOrientation(const std::uint8_t* block, std::size_t size);

} // namespace sheet
