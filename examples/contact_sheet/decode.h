#pragma once

#include "examples/contact_sheet/picture.h"

#include <cstdint>
#include <stdexcept>
#include <string>

namespace sheet {

/// What a transparent picture is laid on.
constexpr Colour paper{0xff, 0xff, 0xff};

/// A picture, shrunk, and the size that its file has.
struct DecodedPicture {
    Size fileSize;
    Picture picture;
};

/// The file holds no picture that can be shown; what() says why, for people.
class DecodeError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Reads a JPEG or PNG file, told apart by its first bytes, and shrinks it to fit into a square of
/// `edge` pixels. Throws DecodeError for a file that is unreadable or damaged anywhere, and
/// std::bad_alloc when the memory for its pixels cannot be had.
DecodedPicture decodeToFit(const std::string& path, std::uint32_t edge);

} // namespace sheet
