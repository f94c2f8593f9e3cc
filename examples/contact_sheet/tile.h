#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <cairo.h>

namespace sheet {

/// Width and height in pixels.
struct Size {
    int width = 0;
    int height = 0;
};

/// A picture in memory, and what draws on one.
using Surface = std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)>;
using Context = std::unique_ptr<cairo_t, decltype(&cairo_destroy)>;

/// An opaque picture, black so far. Throws std::runtime_error when there can be none of this size.
Surface newSurface(Size size);

/// The job that makes a tile, a small picture the right way up, of a file (JPEG, PNG or PPM) which
/// fits into `box`.
std::string jobOf(const std::string& path, Size box);

/// What a worker does: runs such a job. Only here is a file's content looked at, so whatever it
/// does to who looks at it, it does to a worker process. Throws what there is to say about the
/// file.
void makeTile(std::string_view job, std::vector<char>& result);

/// The tile in a worker's answer. Null when that is no tile which fits into `box`: who decodes what
/// strangers have made is not trusted either.
Surface tileOf(const std::vector<char>& answer, Size box);

} // namespace sheet
