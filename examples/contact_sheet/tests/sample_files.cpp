#include "examples/contact_sheet/tests/sample_files.h"

#include "examples/contact_sheet/png_writer.h"

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

#include <jpeglib.h>

#include <png.h>

namespace sheet::sample {

namespace {

struct FileCloser {
    void operator()(std::FILE* file) const
    {
        std::fclose(file);
    }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

File openToWrite(const std::string& path)
{
    File file(std::fopen(path.c_str(), "wbe"));
    if (!file)
        throw std::runtime_error("cannot write " + path);
    return file;
}

void writePngRows(
    const std::string& path,
    Size size,
    int depth,
    int colourType,
    int interlace,
    const std::vector<std::uint8_t>& samples)
{
    const File file = openToWrite(path);
    png_structp encoder = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(encoder);
    if (setjmp(png_jmpbuf(encoder)) != 0) // NOLINT(bugprone-*): the process ends here
        std::abort();
    png_init_io(encoder, file.get());
    png_set_IHDR(encoder, info, size.width, size.height, depth, colourType, interlace, 0, 0);
    png_write_info(encoder, info);
    const int passes = png_set_interlace_handling(encoder);
    const std::size_t rowBytes = samples.size() / size.height;
    for (int pass = 0; pass < passes; ++pass)
        for (std::size_t y = 0; y < size.height; ++y)
            png_write_row(encoder, samples.data() + y * rowBytes);
    png_write_end(encoder, info);
    png_destroy_write_struct(&encoder, &info);
}

// The smallest EXIF block: one directory with one entry, in big-endian order.
std::vector<std::uint8_t> exifBlock(int orientation)
{
    return {
        'E', 'x', 'i', 'f',  0,    0, 'M', 'M', 0, 42, 0, 0, 0,
        8,   0,   1,   0x01, 0x12, 0, 3,   0,   0, 0,  1, 0, static_cast<std::uint8_t>(orientation),
        0,   0,   0,   0,    0,    0};
}

void writeJpegSamples(
    const std::string& path,
    Size size,
    J_COLOR_SPACE colours,
    const std::vector<std::uint8_t>& samples,
    int orientation)
{
    const File file = openToWrite(path);
    jpeg_compress_struct encoder{};
    jpeg_error_mgr errors{};
    encoder.err = jpeg_std_error(&errors);
    jpeg_create_compress(&encoder);
    jpeg_stdio_dest(&encoder, file.get());
    encoder.image_width = size.width;
    encoder.image_height = size.height;
    encoder.input_components = colours == JCS_CMYK ? 4 : 3;
    encoder.in_color_space = colours;
    jpeg_set_defaults(&encoder);
    jpeg_set_quality(&encoder, 100, TRUE);
    jpeg_start_compress(&encoder, TRUE);
    if (orientation != 0) {
        const std::vector<std::uint8_t> block = exifBlock(orientation);
        jpeg_write_marker(
            &encoder, JPEG_APP0 + 1, block.data(), static_cast<unsigned>(block.size()));
    }
    std::vector<std::uint8_t> line(samples.size() / size.height);
    JSAMPROW start = line.data();
    while (encoder.next_scanline < encoder.image_height) {
        std::copy_n(samples.data() + encoder.next_scanline * line.size(), line.size(), start);
        jpeg_write_scanlines(&encoder, &start, 1);
    }
    jpeg_finish_compress(&encoder);
    jpeg_destroy_compress(&encoder);
}

} // namespace

Folder::Folder()
{
    std::string name = (std::filesystem::temp_directory_path() / "contact-sheet-XXXXXX").string();
    if (!mkdtemp(name.data()))
        throw std::runtime_error("no temporary folder");
    mPath = name;
}

Folder::~Folder()
{
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

std::string Folder::path(const std::string& name) const
{
    return (mPath / name).string();
}

std::vector<std::string> Folder::names() const
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(mPath))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

Picture twoColours(Size size, Colour left, Colour right)
{
    Picture picture(size, left);
    const Picture half({size.width - size.width / 2, 1}, right);
    for (std::size_t y = 0; y < size.height; ++y)
        std::copy(
            half.pixels.begin(),
            half.pixels.end(),
            picture.row(y) + size.width / 2 * bytesPerPixel);
    return picture;
}

void writeBytes(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string readBytes(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void writePng(const std::string& path, const Picture& picture)
{
    const File file = openToWrite(path);
    PngWriter writer(file.get(), picture.size);
    writer.write(picture);
    writer.finish();
}

void writeInterlacedPng(const std::string& path, const Picture& picture)
{
    writePngRows(path, picture.size, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_ADAM7, picture.pixels);
}

void writeTransparentDeepPng(const std::string& path, Size size)
{
    const std::vector<std::uint8_t> samples(std::size_t{size.width} * size.height * 8, 0);
    writePngRows(path, size, 16, PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE, samples);
}

void writeJpeg(const std::string& path, const Picture& picture, int orientation)
{
    writeJpegSamples(path, picture.size, JCS_RGB, picture.pixels, orientation);
}

void writeFourInkJpeg(const std::string& path, Size size, std::uint8_t value)
{
    const std::vector<std::uint8_t> samples(std::size_t{size.width} * size.height * 4, value);
    writeJpegSamples(path, size, JCS_CMYK, samples, 0);
}

} // namespace sheet::sample
