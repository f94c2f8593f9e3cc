#include "examples/contact_sheet/decode_format.h"

#include "examples/contact_sheet/exif_orientation.h"
#include "examples/contact_sheet/scale.h"

#include <csetjmp>
#include <cstddef>
#include <utility>
#include <vector>

// The order matters: jpeglib.h uses FILE without including anything for it.
#include <jpeglib.h>

#include <jerror.h>

namespace sheet {

namespace {

constexpr int exifMarker = JPEG_APP0 + 1;
constexpr unsigned longestMarker = 0xffff; // a marker's length has 16 bits

// The decoder's error state. jpeg_error_mgr comes first, so that the decoder's pointer to it is a
// pointer to this.
struct Errors {
    jpeg_error_mgr manager;
    std::jmp_buf escape;
    bool damaged;               // the decoder went on, but the picture is not what was stored
    char text[JMSG_LENGTH_MAX]; // the error, or the first damage
};

Errors& errorsOf(j_common_ptr decoder)
{
    return *reinterpret_cast<Errors*>(decoder->err);
}

// The decoder must not return from here, and a C++ exception must not pass through its C frames.
[[noreturn]] void leaveDecoder(j_common_ptr decoder)
{
    Errors& errors = errorsOf(decoder);
    errors.manager.format_message(decoder, errors.text);
    std::longjmp(errors.escape, 1);
}

bool harmless(int message)
{
    return message == JWRN_ADOBE_XFORM || message == JWRN_BOGUS_ICC || message == JWRN_JFIF_MAJOR;
}

void noteDamage(j_common_ptr decoder, int level)
{
    constexpr int warning = -1;
    Errors& errors = errorsOf(decoder);
    if (level != warning || errors.damaged || harmless(errors.manager.msg_code))
        return;
    errors.damaged = true;
    errors.manager.format_message(decoder, errors.text);
}

// One picture being read. Each call into the decoder goes through guarded(), which turns the
// decoder's jump out of an error into an exception once its frames are gone.
class JpegReader {
public:
    JpegReader(std::FILE* file, std::uint32_t edge);
    ~JpegReader()
    {
        jpeg_destroy_decompress(&mDecoder);
    }

    JpegReader(const JpegReader&) = delete;
    JpegReader& operator=(const JpegReader&) = delete;

    DecodedPicture read();

private:
    template <class Call>
    void guarded(Call call)
    {
        if (setjmp(mErrors.escape) !=
            0) // NOLINT(bugprone-*): no object with a destructor is skipped
            throw DecodeError(std::string("damaged JPEG: ") + mErrors.text);
        call();
    }

    void readHeader();
    void letDecoderShrink();
    Picture readPixels();
    const std::uint8_t*
    asRgb(const std::vector<std::uint8_t>& line, std::vector<std::uint8_t>& rgb);
    int orientation() const;

    jpeg_decompress_struct mDecoder{};
    Errors mErrors{};
    std::FILE* mFile;
    std::uint32_t mEdge;
};

JpegReader::JpegReader(std::FILE* file, std::uint32_t edge)
    : mFile(file),
      mEdge(edge)
{
    mDecoder.err = jpeg_std_error(&mErrors.manager);
    mErrors.manager.error_exit = leaveDecoder;
    mErrors.manager.emit_message = noteDamage;
}

DecodedPicture JpegReader::read()
{
    readHeader();
    const Size fileSize{mDecoder.image_width, mDecoder.image_height};
    const int turn = orientation(); // finishing the file forgets its markers
    letDecoderShrink();
    Picture picture = readPixels();
    if (mErrors.damaged)
        throw DecodeError(std::string("damaged JPEG: ") + mErrors.text);

    const bool turnsSideways = turn >= 5;
    return {
        turnsSideways ? Size{fileSize.height, fileSize.width} : fileSize,
        upright(std::move(picture), turn)};
}

void JpegReader::readHeader()
{
    guarded([this] {
        jpeg_create_decompress(&mDecoder);
        jpeg_stdio_src(&mDecoder, mFile);
        jpeg_save_markers(&mDecoder, exifMarker, longestMarker);
        jpeg_read_header(&mDecoder, TRUE);
    });
}

// The decoder can leave out the fine detail at a half, a quarter or an eighth of the size, which
// saves most of the work for a small tile. It is asked for twice the tile's size at least, so that
// the exact scaler still has something to average.
void JpegReader::letDecoderShrink()
{
    const Size target = fitInto({mDecoder.image_width, mDecoder.image_height}, mEdge);
    mDecoder.scale_num = 1;
    mDecoder.scale_denom = 8;
    while (mDecoder.scale_denom > 1 &&
           (mDecoder.image_width / mDecoder.scale_denom < 2 * target.width ||
            mDecoder.image_height / mDecoder.scale_denom < 2 * target.height))
        mDecoder.scale_denom /= 2;
    const bool fourInks =
        mDecoder.jpeg_color_space == JCS_CMYK || mDecoder.jpeg_color_space == JCS_YCCK;
    mDecoder.out_color_space = fourInks ? JCS_CMYK : JCS_RGB;
}

Picture JpegReader::readPixels()
{
    guarded([this] { jpeg_start_decompress(&mDecoder); });
    const Size size{mDecoder.output_width, mDecoder.output_height};
    AreaScaler scaler(size, fitInto(size, mEdge));
    std::vector<std::uint8_t> line(
        std::size_t{size.width} * static_cast<std::size_t>(mDecoder.output_components));
    std::vector<std::uint8_t> rgb(std::size_t{size.width} * bytesPerPixel);
    JSAMPROW lineStart = line.data();
    while (mDecoder.output_scanline < mDecoder.output_height) {
        guarded([this, &lineStart] { jpeg_read_scanlines(&mDecoder, &lineStart, 1); });
        scaler.addRow(asRgb(line, rgb));
    }
    guarded([this] { jpeg_finish_decompress(&mDecoder); });
    return scaler.take();
}

// Four-ink files store their inks inverted, as the one program that writes them has always done:
// 255 is no ink.
const std::uint8_t*
JpegReader::asRgb(const std::vector<std::uint8_t>& line, std::vector<std::uint8_t>& rgb)
{
    if (mDecoder.out_color_space != JCS_CMYK)
        return line.data();
    constexpr std::size_t inks = 4;
    for (std::size_t at = 0; at * inks < line.size(); ++at) {
        const unsigned black = line[at * inks + 3];
        for (std::size_t channel = 0; channel < bytesPerPixel; ++channel)
            rgb[at * bytesPerPixel + channel] =
                static_cast<std::uint8_t>(line[at * inks + channel] * black / 255);
    }
    return rgb.data();
}

int JpegReader::orientation() const
{
    for (jpeg_saved_marker_ptr marker = mDecoder.marker_list; marker; marker = marker->next) {
        const int found = exifOrientation(marker->data, marker->data_length);
        if (found != 1)
            return found;
    }
    return 1;
}

} // namespace

DecodedPicture decodeJpeg(std::FILE* file, std::uint32_t edge)
{
    return JpegReader(file, edge).read();
}

} // namespace sheet
