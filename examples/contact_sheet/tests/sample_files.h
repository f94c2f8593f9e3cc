#pragma once

#include "examples/contact_sheet/picture.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace sheet::sample {

/// A folder of one test, removed with all that is in it.
class Folder {
public:
    Folder();
    ~Folder();

    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string path(const std::string& name) const;

    /// Names of everything inside, sorted.
    std::vector<std::string> names() const;

private:
    std::filesystem::path mPath;
};

/// Left half one colour, right half another.
Picture twoColours(Size size, Colour left, Colour right);

void writeBytes(const std::string& path, const std::string& bytes);
std::string readBytes(const std::string& path);

void writePng(const std::string& path, const Picture& picture);
void writeInterlacedPng(const std::string& path, const Picture& picture);
/// Every pixel transparent black, 16 bits a sample.
void writeTransparentDeepPng(const std::string& path, Size size);

/// At full quality. `orientation` 0 writes no EXIF block.
void writeJpeg(const std::string& path, const Picture& picture, int orientation = 0);

/// Four inks, inverted, all the same value.
void writeFourInkJpeg(const std::string& path, Size size, std::uint8_t value);

} // namespace sheet::sample
