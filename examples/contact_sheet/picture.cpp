#include "examples/contact_sheet/picture.h"

#include <algorithm>
#include <utility>

namespace sheet {

namespace {

std::uint32_t scaledLength(std::uint32_t length, std::uint32_t edge, std::uint32_t longest)
{
    const std::uint64_t rounded = (std::uint64_t{length} * edge + longest / 2) / longest;
    return static_cast<std::uint32_t>(std::max<std::uint64_t>(rounded, 1));
}

// Where the pixel (x, y) of an upright picture of `size` lies in the stored one.
std::pair<std::size_t, std::size_t>
storedPlace(std::size_t x, std::size_t y, Size size, int orientation)
{
    const std::size_t right = size.width - 1 - x;
    const std::size_t bottom = size.height - 1 - y;
    switch (orientation) {
    case 2:
        return {right, y};
    case 3:
        return {right, bottom};
    case 4:
        return {x, bottom};
    case 5:
        return {y, x};
    case 6:
        return {y, right};
    case 7:
        return {bottom, right};
    case 8:
        return {bottom, x};
    default:
        return {x, y};
    }
}

} // namespace

Picture::Picture(Size pictureSize, Colour fill)
    : size(pictureSize),
      pixels(std::size_t{pictureSize.width} * pictureSize.height * bytesPerPixel)
{
    for (std::size_t at = 0; at < pixels.size(); at += bytesPerPixel) {
        pixels[at] = fill.red;
        pixels[at + 1] = fill.green;
        pixels[at + 2] = fill.blue;
    }
}

std::uint8_t* Picture::row(std::size_t y)
{
    return pixels.data() + y * size.width * bytesPerPixel;
}

const std::uint8_t* Picture::row(std::size_t y) const
{
    return pixels.data() + y * size.width * bytesPerPixel;
}

Size fitInto(Size size, std::uint32_t edge)
{
    const std::uint32_t longest = std::max(size.width, size.height);
    if (longest <= edge)
        return size;
    return {scaledLength(size.width, edge, longest), scaledLength(size.height, edge, longest)};
}

Picture upright(Picture picture, int orientation)
{
    if (orientation < 2 || orientation > 8)
        return picture;

    const bool turnsSideways = orientation >= 5;
    const Size turned =
        turnsSideways ? Size{picture.size.height, picture.size.width} : picture.size;
    Picture result(turned, Colour{});
    for (std::size_t y = 0; y < turned.height; ++y) {
        for (std::size_t x = 0; x < turned.width; ++x) {
            const auto [fromX, fromY] = storedPlace(x, y, turned, orientation);
            const std::uint8_t* from = picture.row(fromY) + fromX * bytesPerPixel;
            std::copy_n(from, bytesPerPixel, result.row(y) + x * bytesPerPixel);
        }
    }
    return result;
}

} // namespace sheet
