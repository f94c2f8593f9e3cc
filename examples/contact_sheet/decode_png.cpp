#include "examples/contact_sheet/decode_format.h"

#include "examples/contact_sheet/scale.h"

#include <csetjmp>
#include <cstddef>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <png.h>

namespace sheet {

namespace {

struct Errors {
    std::jmp_buf escape;
    char text[256];
};

// The decoder must not return from here, and a C++ exception must not pass through its C frames.
[[noreturn]] void leaveDecoder(png_structp decoder, png_const_charp message)
{
    Errors& errors = *static_cast<Errors*>(png_get_error_ptr(decoder));
    std::snprintf(errors.text, sizeof errors.text, "%s", message);
    std::longjmp(errors.escape, 1);
}

void ignoreWarning(png_structp, png_const_charp) {}

// One picture being read. Each call into the decoder goes through guarded(), which turns the
// decoder's jump out of an error into an exception once its frames are gone.
class PngReader {
public:
    PngReader(std::FILE* file, std::uint32_t edge);
    ~PngReader()
    {
        png_destroy_read_struct(&mDecoder, &mInfo, nullptr);
    }

    PngReader(const PngReader&) = delete;
    PngReader& operator=(const PngReader&) = delete;

    DecodedPicture read();

private:
    template <class Call>
    void guarded(Call call)
    {
        if (setjmp(mErrors.escape) !=
            0) // NOLINT(bugprone-*): no object with a destructor is skipped
            throw DecodeError(std::string("damaged PNG: ") + mErrors.text);
        call();
    }

    void readHeader();
    void askForRgb();
    Picture readRowByRow();
    Picture readInterlaced();

    Errors mErrors{};
    std::FILE* mFile;
    std::uint32_t mEdge;
    png_structp mDecoder = nullptr;
    png_infop mInfo = nullptr;
    Size mSize;
    int mPasses = 1;
};

PngReader::PngReader(std::FILE* file, std::uint32_t edge)
    : mFile(file),
      mEdge(edge),
      mDecoder(
          png_create_read_struct(PNG_LIBPNG_VER_STRING, &mErrors, leaveDecoder, ignoreWarning)),
      mInfo(mDecoder ? png_create_info_struct(mDecoder) : nullptr)
{
    if (mInfo)
        return;
    png_destroy_read_struct(&mDecoder, nullptr, nullptr);
    throw std::bad_alloc();
}

DecodedPicture PngReader::read()
{
    readHeader();
    askForRgb();
    Picture picture = mPasses == 1 ? readRowByRow() : readInterlaced();
    guarded([this] { png_read_end(mDecoder, nullptr); });
    return {mSize, std::move(picture)};
}

void PngReader::readHeader()
{
    guarded([this] {
        png_init_io(mDecoder, mFile);
        png_read_info(mDecoder, mInfo);
    });
    mSize = {png_get_image_width(mDecoder, mInfo), png_get_image_height(mDecoder, mInfo)};
}

// Whatever the file stores, rows arrive as three bytes for each pixel, laid on paper.
void PngReader::askForRgb()
{
    guarded([this] {
        png_set_expand(mDecoder);
        png_set_scale_16(mDecoder);
        png_set_gray_to_rgb(mDecoder);
        png_color_16 background{};
        // The colour counts in the depth of the file, which 16-bit samples keep until the end.
        const unsigned scale = png_get_bit_depth(mDecoder, mInfo) == 16 ? 0x101 : 1;
        background.red = static_cast<png_uint_16>(paper.red * scale);
        background.green = static_cast<png_uint_16>(paper.green * scale);
        background.blue = static_cast<png_uint_16>(paper.blue * scale);
        png_set_background(mDecoder, &background, PNG_BACKGROUND_GAMMA_SCREEN, 0, 1.0);
        mPasses = png_set_interlace_handling(mDecoder);
        png_read_update_info(mDecoder, mInfo);
    });
    if (png_get_rowbytes(mDecoder, mInfo) != std::size_t{mSize.width} * bytesPerPixel)
        throw DecodeError("damaged PNG: unexpected row length");
}

Picture PngReader::readRowByRow()
{
    AreaScaler scaler(mSize, fitInto(mSize, mEdge));
    std::vector<std::uint8_t> line(std::size_t{mSize.width} * bytesPerPixel);
    png_bytep lineStart = line.data();
    for (std::uint32_t y = 0; y < mSize.height; ++y) {
        guarded([this, lineStart] { png_read_row(mDecoder, lineStart, nullptr); });
        scaler.addRow(lineStart);
    }
    return scaler.take();
}

// An interlaced file spreads each row over the whole of the data, so that there is no way around
// holding all of its pixels. A small file can ask for gigabytes here; the limits on the worker's
// memory are made for that.
Picture PngReader::readInterlaced()
{
    Picture whole(mSize, paper);
    png_bytep firstRow = whole.row(0);
    const std::size_t rowBytes = std::size_t{mSize.width} * bytesPerPixel;
    for (int pass = 0; pass < mPasses; ++pass) {
        for (std::uint32_t y = 0; y < mSize.height; ++y) {
            png_bytep row = firstRow + y * rowBytes;
            guarded([this, row] { png_read_row(mDecoder, row, nullptr); });
        }
    }
    AreaScaler scaler(mSize, fitInto(mSize, mEdge));
    for (std::uint32_t y = 0; y < mSize.height; ++y)
        scaler.addRow(whole.row(y));
    return scaler.take();
}

} // namespace

DecodedPicture decodePng(std::FILE* file, std::uint32_t edge)
{
    return PngReader(file, edge).read();
}

} // namespace sheet
