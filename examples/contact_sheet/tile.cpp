// From a file to a tile. The worker maps the file, decodes it, turns it upright, scales it and
// sends the pixels behind a small header; the host checks that header before it believes the
// pixels.

#include "tile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

// After <cstdio>, whose FILE it uses.
#include <jpeglib.h>
#include <libexif/exif-data.h>
#include <png.h>

namespace sheet {

namespace {

/// A file's bytes in memory, all or as many as are asked for, as long as this lives.
struct Mapping {
    explicit Mapping(const std::string& path, std::size_t wanted = 0)
    {
        // A named pipe would have an open wait for who writes to it.
        const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        if (file < 0)
            throw std::system_error(errno, std::generic_category(), "cannot be opened");
        const std::unique_ptr<const int, void (*)(const int*)> owner(
            &file, [](const int* number) { ::close(*number); });
        struct stat status {};
        if (::fstat(file, &status) != 0 || !S_ISREG(status.st_mode))
            throw std::runtime_error("not a file but a folder, a pipe or a device");
        size = wanted != 0 ? wanted : static_cast<std::size_t>(status.st_size);
        if (size == 0)
            throw std::runtime_error("the file is empty");
        void* const mapped = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file, 0);
        if (mapped == MAP_FAILED)
            throw std::system_error(errno, std::generic_category(), "cannot be read");
        bytes = static_cast<unsigned char*>(mapped);
    }

    ~Mapping()
    {
        ::munmap(bytes, size);
    }

    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;

    std::string_view start(std::size_t length) const
    {
        return {reinterpret_cast<const char*>(bytes), std::min(length, size)};
    }

    unsigned char* bytes = nullptr;
    std::size_t size = 0;
};

std::size_t pixelCount(Size size)
{
    return static_cast<std::size_t>(size.width) * static_cast<std::size_t>(size.height);
}

Size sizeOf(const Surface& surface)
{
    return {
        cairo_image_surface_get_width(surface.get()),
        cairo_image_surface_get_height(surface.get())};
}

/// Four bytes for each pixel, row behind row: rows of such surfaces have no padding.
unsigned char* pixelsOf(const Surface& surface)
{
    cairo_surface_flush(surface.get());
    return cairo_image_surface_get_data(surface.get());
}

void setRow(const Surface& surface, std::size_t row, const unsigned char* rgb)
{
    const auto width = static_cast<std::size_t>(sizeOf(surface).width);
    unsigned char* pixel = pixelsOf(surface) + 4 * row * width;
    for (const unsigned char* end = rgb + 3 * width; rgb != end; rgb += 3, pixel += 4) {
        const std::uint32_t colour =
            std::uint32_t(rgb[0]) << 16 | std::uint32_t(rgb[1]) << 8 | rgb[2];
        std::memcpy(pixel, &colour, sizeof colour);
    }
}

// The library's own way with an error is to print it and to end the process. In a worker there is
// nothing wrong with that: the outcome has the exit status and what was printed, and the pool
// starts another worker.
Surface decodeJpeg(const Mapping& file, Size box)
{
    jpeg_error_mgr errors{};
    jpeg_decompress_struct jpeg{};
    jpeg.err = jpeg_std_error(&errors);
    jpeg_create_decompress(&jpeg);
    const std::unique_ptr<jpeg_decompress_struct, decltype(&jpeg_destroy_decompress)> owner(
        &jpeg, jpeg_destroy_decompress);
    jpeg_mem_src(&jpeg, file.bytes, file.size);
    jpeg_read_header(&jpeg, TRUE);
    errors.num_warnings = 0; // those about the header are harmless

    // Leaving out detail saves most of the work. Twice what the tile needs stays, to average over.
    const auto enough = 2 * static_cast<unsigned>(std::max(box.width, box.height));
    jpeg.scale_denom = 8;
    jpeg.scale_num = 1;
    while (jpeg.scale_num < 8 &&
           std::max(jpeg.image_width, jpeg.image_height) * jpeg.scale_num / 8 < enough)
        jpeg.scale_num *= 2;
    jpeg.out_color_space = JCS_RGB;
    jpeg_start_decompress(&jpeg);
    Surface picture = newSurface({int(jpeg.output_width), int(jpeg.output_height)});
    std::vector<unsigned char> rgb(std::size_t{3} * jpeg.output_width);
    while (jpeg.output_scanline < jpeg.output_height) {
        unsigned char* row = rgb.data();
        jpeg_read_scanlines(&jpeg, &row, 1);
        setRow(picture, jpeg.output_scanline - 1, row);
    }
    jpeg_finish_decompress(&jpeg);
    if (errors.num_warnings != 0) // the library has printed the first one
        throw std::runtime_error("damaged JPEG");
    return picture;
}

// Takes seven bytes of memory for each pixel, however few the file has: what a memory cap is for.
Surface decodePng(const Mapping& file)
{
    png_image png{};
    png.version = PNG_IMAGE_VERSION;
    const std::unique_ptr<png_image, decltype(&png_image_free)> owner(&png, png_image_free);
    const auto orThrow = [&png](int done) {
        if (done == 0)
            throw std::runtime_error("damaged PNG: " + std::string(png.message));
    };
    orThrow(png_image_begin_read_from_memory(&png, file.bytes, file.size));
    png.format = PNG_FORMAT_RGB;
    const Size size{int(png.width), int(png.height)};
    Surface picture = newSurface(size);
    std::vector<unsigned char> rgb(3 * pixelCount(size));
    constexpr png_color paper{255, 255, 255}; // behind what is transparent
    orThrow(png_image_finish_read(&png, &paper, rgb.data(), 0, nullptr));
    for (std::size_t row = 0; row < png.height; ++row)
        setRow(picture, row, &rgb[3 * row * png.width]);
    return picture;
}

// Believes the header, as too many decoders do: a file with fewer pixels than it promises ends the
// process with SIGBUS, and that costs its tile and nothing else.
Surface decodePpm(const Mapping& file, const std::string& path)
{
    std::istringstream header(std::string(file.start(64)));
    std::string mark;
    Size size;
    int brightest = 0;
    header >> mark >> size.width >> size.height >> brightest;
    header.get(); // one white space
    if (!header || size.width < 1 || size.height < 1 || brightest != 255)
        throw std::runtime_error("a PPM file of an unknown kind");
    const auto start = static_cast<std::size_t>(header.tellg());
    Surface picture = newSurface(size);
    const Mapping promised(path, start + 3 * pixelCount(size));
    const std::size_t rowBytes = 3 * pixelCount({size.width, 1});
    for (std::size_t at = start, row = 0; at < promised.size; at += rowBytes, ++row)
        setRow(picture, row, promised.bytes + at);
    return picture;
}

Surface decode(const Mapping& file, const std::string& path, Size box)
{
    if (file.start(3) == "\xff\xd8\xff")
        return decodeJpeg(file, box);
    if (file.start(4) == "\x89PNG")
        return decodePng(file);
    if (file.start(2) == "P6")
        return decodePpm(file, path);
    throw std::runtime_error("neither a JPEG nor a PNG nor a PPM file");
}

/// How a camera was held, from 1 (upright) to 8, as EXIF counts it.
int orientationOf(const Mapping& file)
{
    constexpr std::size_t farEnough = 1 << 20; // it stands at the beginning of a file
    const std::unique_ptr<ExifData, decltype(&exif_data_unref)> exif(
        exif_data_new_from_data(file.bytes, unsigned(file.start(farEnough).size())),
        exif_data_unref);
    const ExifEntry* entry =
        exif ? exif_content_get_entry(exif->ifd[EXIF_IFD_0], EXIF_TAG_ORIENTATION) : nullptr;
    if (entry == nullptr || entry->format != EXIF_FORMAT_SHORT || entry->size < sizeof(ExifShort))
        return 1;
    const int found = exif_get_short(entry->data, exif_data_get_byte_order(exif.get()));
    return found >= 1 && found <= 8 ? found : 1;
}

/// Where the pixels of a picture of this size come to lie when it is turned upright.
cairo_matrix_t turned(int orientation, Size size)
{
    const double w = size.width;
    const double h = size.height;
    const std::array<cairo_matrix_t, 8> turns{{
        {1, 0, 0, 1, 0, 0},   // as it is
        {-1, 0, 0, 1, w, 0},  // mirrored
        {-1, 0, 0, -1, w, h}, // upside down
        {1, 0, 0, -1, 0, h},  // upside down and mirrored
        {0, 1, 1, 0, 0, 0},   // on its side and mirrored
        {0, 1, -1, 0, h, 0},  // on its side: a quarter to the right
        {0, -1, -1, 0, h, w}, // on its other side and mirrored
        {0, -1, 1, 0, 0, w},  // on its other side: a quarter to the left
    }};
    return turns.at(static_cast<std::size_t>(orientation) - 1);
}

Size turnedSize(int orientation, Size size)
{
    return orientation >= 5 ? Size{size.height, size.width} : size;
}

Surface scaled(const Surface& from, Size to, int orientation)
{
    const Size upright = turnedSize(orientation, sizeOf(from));
    const cairo_matrix_t turn = turned(orientation, sizeOf(from));
    Surface onto = newSurface(to);
    const Context cairo(cairo_create(onto.get()), cairo_destroy);
    cairo_scale(cairo.get(), double(to.width) / upright.width, double(to.height) / upright.height);
    cairo_transform(cairo.get(), &turn);
    cairo_set_source_surface(cairo.get(), from.get(), 0, 0);
    cairo_pattern_set_extend(cairo_get_source(cairo.get()), CAIRO_EXTEND_PAD); // no dark borders
    cairo_paint(cairo.get());
    return onto;
}

/// Upright, and as large as fits into the box, but not larger than it is.
Surface tileFrom(Surface picture, Size box, int orientation)
{
    const Size upright = turnedSize(orientation, sizeOf(picture));
    const double scale =
        std::min({1.0, double(box.width) / upright.width, double(box.height) / upright.height});
    const Size goal{
        std::max(1, int(std::lround(upright.width * scale))),
        std::max(1, int(std::lround(upright.height * scale)))};
    // Cairo averages over 16 pixels at most, and would skip others.
    const int edge = std::max(goal.width, goal.height);
    for (Size size = sizeOf(picture); std::max(size.width, size.height) > 8 * edge;
         size = sizeOf(picture))
        picture = scaled(picture, {std::max(1, size.width / 8), std::max(1, size.height / 8)}, 1);
    return scaled(picture, goal, orientation);
}

} // namespace

Surface newSurface(Size size)
{
    Surface surface(
        cairo_image_surface_create(CAIRO_FORMAT_RGB24, size.width, size.height),
        cairo_surface_destroy);
    if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS)
        throw std::runtime_error(
            std::to_string(size.width) + " x " + std::to_string(size.height) +
            " pixels are too many to draw");
    return surface;
}

std::string jobOf(const std::string& path, Size box)
{
    return std::to_string(box.width) + ' ' + std::to_string(box.height) + '\n' + path;
}

void makeTile(std::string_view job, std::vector<char>& result)
{
    std::istringstream words{std::string(job)};
    Size box;
    std::string path;
    words >> box.width >> box.height;
    words.get();
    std::getline(words, path, '\0'); // which no path has
    const Mapping file(path);
    const Surface picture = tileFrom(decode(file, path, box), box, orientationOf(file));
    const Size size = sizeOf(picture);
    result.resize(sizeof size + 4 * pixelCount(size));
    std::memcpy(result.data(), &size, sizeof size);
    std::memcpy(result.data() + sizeof size, pixelsOf(picture), 4 * pixelCount(size));
}

Surface tileOf(const std::vector<char>& answer, Size box)
{
    Size size;
    if (answer.size() >= sizeof size)
        std::memcpy(&size, answer.data(), sizeof size);
    if (size.width < 1 || size.height < 1 || size.width > box.width || size.height > box.height ||
        answer.size() != sizeof size + 4 * pixelCount(size))
        return {nullptr, cairo_surface_destroy};
    Surface tile = newSurface(size);
    std::memcpy(pixelsOf(tile), answer.data() + sizeof size, 4 * pixelCount(size));
    cairo_surface_mark_dirty(tile.get());
    return tile;
}

} // namespace sheet
