// make-hostile-files FOLDER PHOTOGRAPH...: writes files into FOLDER that hurt a careless picture
// decoder. The photographs (JPEG) are the source of damaged copies. The same input gives the same
// files.

#include <algorithm>
#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

// The order matters: jpeglib.h uses FILE without including anything for it.
#include <jpeglib.h>

#include <png.h>

namespace {

using Bytes = std::vector<unsigned char>;

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

Bytes readFile(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    Bytes bytes{std::istreambuf_iterator<char>(stream), {}};
    if (bytes.empty())
        throw std::runtime_error("cannot read " + path);
    return bytes;
}

void writeFile(const std::string& path, const Bytes& bytes)
{
    const File file = openToWrite(path);
    // An empty vector may have a null address, which fwrite does not take.
    if (!bytes.empty() && std::fwrite(bytes.data(), 1, bytes.size(), file.get()) != bytes.size())
        throw std::runtime_error("cannot write " + path);
}

// A PNG of one bit for each pixel, all of them alike, compresses to next to nothing, and a decoder
// that makes three bytes of each bit has to find room for 24 times its raw size. Interlaced, it
// cannot be decoded row by row. The encoder's default error handling prints the reason and ends the
// process from a jump buffer of its own.
void writePngBomb(const std::string& path, std::uint32_t edge)
{
    const File file = openToWrite(path);
    png_structp encoder = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = encoder ? png_create_info_struct(encoder) : nullptr;
    if (!info)
        throw std::bad_alloc();
    const Bytes row(edge / 8 + 1, 0xaa);
    if (setjmp(png_jmpbuf(encoder)) != 0) // NOLINT(bugprone-*): the process ends here
        std::exit(EXIT_FAILURE);
    png_init_io(encoder, file.get());
    png_set_IHDR(
        encoder,
        info,
        edge,
        edge,
        1,
        PNG_COLOR_TYPE_GRAY,
        PNG_INTERLACE_ADAM7,
        PNG_COMPRESSION_TYPE_DEFAULT,
        PNG_FILTER_TYPE_DEFAULT);
    png_write_info(encoder, info);
    const int passes = png_set_interlace_handling(encoder);
    for (int pass = 0; pass < passes; ++pass)
        for (std::uint32_t y = 0; y < edge; ++y)
            png_write_row(encoder, row.data());
    png_write_end(encoder, info);
    png_destroy_write_struct(&encoder, &info);
}

// A gray progressive JPEG of three scans, the last of which refines a coefficient that is zero
// everywhere: a few bytes that send the decoder over every block of the picture.
Bytes progressiveJpeg(std::uint32_t edge)
{
    static constexpr jpeg_scan_info script[] = {
        {1, {0, 0, 0, 0}, 0, 0, 0, 0},   // the average of each block
        {1, {0, 0, 0, 0}, 63, 63, 0, 1}, // one coefficient without its last bit
        {1, {0, 0, 0, 0}, 63, 63, 1, 0}, // that bit
    };
    jpeg_compress_struct encoder{};
    jpeg_error_mgr errors{}; // the default handler prints the reason and ends the process
    encoder.err = jpeg_std_error(&errors);
    jpeg_create_compress(&encoder);
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&encoder, &buffer, &size);
    encoder.image_width = edge;
    encoder.image_height = edge;
    encoder.input_components = 1;
    encoder.in_color_space = JCS_GRAYSCALE;
    jpeg_set_defaults(&encoder);
    encoder.scan_info = script;
    encoder.num_scans = static_cast<int>(std::size(script));
    jpeg_start_compress(&encoder, TRUE);
    Bytes line(edge, 0x80);
    JSAMPROW start = line.data();
    while (encoder.next_scanline < edge)
        jpeg_write_scanlines(&encoder, &start, 1);
    jpeg_finish_compress(&encoder);
    jpeg_destroy_compress(&encoder);
    Bytes bytes(buffer, buffer + size);
    std::free(buffer); // NOLINT(*): jpeg_mem_dest allocates with malloc
    return bytes;
}

// The last scan again and again. Its tables come right before it and stay in force.
Bytes withRepeatedLastScan(const Bytes& jpeg, unsigned repetitions)
{
    static constexpr unsigned char startOfScan[] = {0xff, 0xda};
    constexpr std::ptrdiff_t endMarkerBytes = 2;
    const auto scan =
        std::find_end(jpeg.begin(), jpeg.end(), std::begin(startOfScan), std::end(startOfScan));
    const auto end = jpeg.end() - endMarkerBytes;
    Bytes result(jpeg.begin(), end);
    for (unsigned index = 0; index < repetitions; ++index)
        result.insert(result.end(), scan, end);
    result.insert(result.end(), end, jpeg.end());
    return result;
}

Bytes truncated(const Bytes& bytes, double share)
{
    const auto kept = static_cast<std::ptrdiff_t>(static_cast<double>(bytes.size()) * share);
    return {bytes.begin(), bytes.begin() + kept};
}

// Flips bits behind the first tenth, where the header is, so that the file still looks like a
// photograph.
Bytes withFlippedBits(Bytes bytes, unsigned count, unsigned seed)
{
    std::mt19937 random(seed); // its numbers are the same everywhere, unlike a distribution's
    const std::size_t start = bytes.size() / 10;
    for (unsigned index = 0; index < count; ++index)
        bytes[start + random() % (bytes.size() - start)] ^=
            static_cast<unsigned char>(1u << random() % 8);
    return bytes;
}

std::string nameOf(const std::string& path)
{
    return path.substr(path.rfind('/') + 1);
}

void writeDamagedCopies(const std::string& folder, const std::string& photograph)
{
    const Bytes bytes = readFile(photograph);
    writeFile(folder + "/truncated-" + nameOf(photograph), truncated(bytes, 0.6));
    writeFile(folder + "/bits-flipped-" + nameOf(photograph), withFlippedBits(bytes, 64, 1));
}

void writeAll(const std::string& folder, const std::vector<std::string>& photographs)
{
    constexpr std::uint32_t gigabytes = 25'000; // 1.9 GB as red, green and blue
    constexpr std::uint32_t fiveGigabytes = 40'000;
    constexpr std::uint32_t scanEdge = 4096; // 262144 blocks, visited by each scan
    constexpr unsigned scans = 20'000;

    writePngBomb(folder + "/unpacks-to-2-gigabytes.png", gigabytes);
    writePngBomb(folder + "/unpacks-to-5-gigabytes.png", fiveGigabytes);
    writeFile(
        folder + "/twenty-thousand-scans.jpg",
        withRepeatedLastScan(progressiveJpeg(scanEdge), scans));
    writeFile(folder + "/empty.jpg", {});
    const std::string text = "This is a letter to my aunt, whatever its name says.\n";
    writeFile(folder + "/letter.jpg", {text.begin(), text.end()});
    for (const std::string& photograph : photographs)
        writeDamagedCopies(folder, photograph);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fputs("usage: make-hostile-files FOLDER PHOTOGRAPH...\n", stderr);
        return 2;
    }
    try {
        writeAll(argv[1], {argv + 2, argv + argc});
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "make-hostile-files: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
