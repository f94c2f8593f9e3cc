#include "examples/contact_sheet/exif_orientation.h"

#include <cstring>
#include <iterator>

namespace sheet {

namespace {

constexpr int uprightOrientation = 1;
constexpr char exifMark[] = {'E', 'x', 'i', 'f', '\0', '\0'};
constexpr std::size_t entryBytes = 12;
constexpr unsigned orientationTag = 0x0112;
constexpr unsigned shortType = 3;

// The TIFF structure inside an EXIF block, in the byte order that it declares. Reads outside of the
// block give 0, which no valid mark is.
class TiffBlock {
public:
    TiffBlock(const std::uint8_t* bytes, std::size_t size)
        : mBytes(bytes),
          mSize(size),
          mLittleEndian(size > 0 && bytes[0] == 'I')
    {
    }

    unsigned number16(std::size_t at) const
    {
        if (at + 2 > mSize)
            return 0;
        const unsigned first = mBytes[at];
        const unsigned second = mBytes[at + 1];
        return mLittleEndian ? first | second << 8 : first << 8 | second;
    }

    std::size_t number32(std::size_t at) const
    {
        const std::size_t first = number16(at);
        const std::size_t second = number16(at + 2);
        return mLittleEndian ? first | second << 16 : first << 16 | second;
    }

private:
    const std::uint8_t* mBytes;
    std::size_t mSize;
    bool mLittleEndian;
};

} // namespace

int exifOrientation(const std::uint8_t* block, std::size_t size)
{
    if (size < std::size(exifMark) || std::memcmp(block, exifMark, std::size(exifMark)) != 0)
        return uprightOrientation;

    const TiffBlock tiff(block + std::size(exifMark), size - std::size(exifMark));
    const std::size_t directory = tiff.number32(4);
    const unsigned entries = tiff.number16(directory);
    for (unsigned index = 0; index < entries; ++index) {
        const std::size_t entry = directory + 2 + index * entryBytes;
        if (tiff.number16(entry) != orientationTag || tiff.number16(entry + 2) != shortType)
            continue;
        const unsigned value = tiff.number16(entry + 8);
        return value >= 1 && value <= 8 ? static_cast<int>(value) : uprightOrientation;
    }
    return uprightOrientation;
}

} // namespace sheet
