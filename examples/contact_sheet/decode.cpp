#include "examples/contact_sheet/decode.h"

#include "examples/contact_sheet/decode_format.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <system_error>

namespace sheet {

namespace {

constexpr std::uint8_t jpegMark[] = {0xff, 0xd8, 0xff};
constexpr std::uint8_t pngMark[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};

struct FileCloser {
    void operator()(std::FILE* file) const
    {
        std::fclose(file);
    }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

std::string systemReason(int error)
{
    return std::generic_category().message(error);
}

template <std::size_t Size>
bool startsWith(const std::uint8_t* bytes, std::size_t count, const std::uint8_t (&mark)[Size])
{
    return count >= Size && std::memcmp(bytes, mark, Size) == 0;
}

} // namespace

DecodedPicture decodeToFit(const std::string& path, std::uint32_t edge)
{
    const File file(std::fopen(path.c_str(), "rbe"));
    if (!file)
        throw DecodeError("cannot be opened: " + systemReason(errno));

    std::uint8_t start[std::size(pngMark)];
    const std::size_t count = std::fread(start, 1, std::size(start), file.get());
    if (std::ferror(file.get()) != 0)
        throw DecodeError("cannot be read: " + systemReason(errno));
    if (count == 0)
        throw DecodeError("the file is empty");

    std::rewind(file.get());
    if (startsWith(start, count, jpegMark))
        return decodeJpeg(file.get(), edge);
    if (startsWith(start, count, pngMark))
        return decodePng(file.get(), edge);
    throw DecodeError("neither a JPEG nor a PNG file");
}

} // namespace sheet
