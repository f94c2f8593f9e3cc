#include "examples/contact_sheet/decode.h"

#include "examples/contact_sheet/tests/sample_files.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

using namespace sheet;

constexpr Colour red{250, 0, 0};
constexpr Colour blue{0, 0, 250};

// JPEG is lossy; flat colours come back almost as they were.
void expectColour(const Picture& picture, std::size_t x, std::size_t y, Colour colour)
{
    const std::uint8_t* pixel = picture.row(y) + x * bytesPerPixel;
    EXPECT_NEAR(pixel[0], colour.red, 4);
    EXPECT_NEAR(pixel[1], colour.green, 4);
    EXPECT_NEAR(pixel[2], colour.blue, 4);
}

std::string reasonFor(const std::string& path)
{
    try {
        decodeToFit(path, 100);
    } catch (const DecodeError& error) {
        return error.what();
    }
    return "decoded";
}

class Decode : public testing::Test {
protected:
    void expectRedAndBlue(const DecodedPicture& decoded)
    {
        EXPECT_EQ(decoded.fileSize.width, 400u);
        EXPECT_EQ(decoded.fileSize.height, 200u);
        ASSERT_EQ(decoded.picture.size.width, 100u);
        ASSERT_EQ(decoded.picture.size.height, 50u);
        expectColour(decoded.picture, 10, 25, red);
        expectColour(decoded.picture, 90, 25, blue);
    }

    const Picture redAndBlue = sample::twoColours({400, 200}, red, blue);
    sample::Folder folder;
    const std::string file = folder.path("file");
};

TEST_F(Decode, readsAJpeg)
{
    sample::writeJpeg(file, redAndBlue);
    expectRedAndBlue(decodeToFit(file, 100));
}

TEST_F(Decode, readsAPng)
{
    sample::writePng(file, redAndBlue);
    expectRedAndBlue(decodeToFit(file, 100));
}

TEST_F(Decode, readsAnInterlacedPng)
{
    sample::writeInterlacedPng(file, redAndBlue);
    expectRedAndBlue(decodeToFit(file, 100));
}

TEST_F(Decode, laysATransparentPictureOnPaper)
{
    sample::writeTransparentDeepPng(file, {30, 20});
    const DecodedPicture decoded = decodeToFit(file, 100);
    EXPECT_EQ(decoded.picture.size.width, 30u);
    expectColour(decoded.picture, 15, 10, paper);
}

TEST_F(Decode, readsAJpegOfFourInks)
{
    sample::writeFourInkJpeg(file, {30, 20}, 255);
    expectColour(decodeToFit(file, 100).picture, 15, 10, Colour{255, 255, 255});
    sample::writeFourInkJpeg(file, {30, 20}, 0);
    expectColour(decodeToFit(file, 100).picture, 15, 10, Colour{0, 0, 0});
}

TEST_F(Decode, turnsAPhotographAsTheCameraWasHeld)
{
    sample::writeJpeg(file, redAndBlue, 6);
    const DecodedPicture decoded = decodeToFit(file, 100);
    EXPECT_EQ(decoded.fileSize.width, 200u);
    EXPECT_EQ(decoded.fileSize.height, 400u);
    ASSERT_EQ(decoded.picture.size.width, 50u);
    ASSERT_EQ(decoded.picture.size.height, 100u);
    expectColour(decoded.picture, 25, 10, red);
    expectColour(decoded.picture, 25, 90, blue);
}

TEST_F(Decode, readsPicturesOfAnySmallSize)
{
    for (std::uint32_t width = 1; width <= 20; ++width) {
        sample::writeJpeg(file, Picture({width, 3}, red));
        EXPECT_EQ(decodeToFit(file, 4).picture.size.width, std::min(width, 4u));
        sample::writePng(file, Picture({3, width}, red));
        EXPECT_EQ(decodeToFit(file, 4).picture.size.height, std::min(width, 4u));
    }
}

TEST_F(Decode, saysWhatIsWrongWithAFileOfAnotherKind)
{
    sample::writeBytes(file, "");
    EXPECT_EQ(reasonFor(file), "the file is empty");
    sample::writeBytes(file, "Dear aunt");
    EXPECT_EQ(reasonFor(file), "neither a JPEG nor a PNG file");
    EXPECT_EQ(reasonFor(folder.path("none")), "cannot be opened: No such file or directory");
    EXPECT_EQ(reasonFor(folder.path("")), "cannot be read: Is a directory");
}

TEST_F(Decode, refusesAPictureThatEndsEarly)
{
    sample::writeJpeg(file, redAndBlue);
    std::string bytes = sample::readBytes(file);
    sample::writeBytes(file, bytes.substr(0, bytes.size() * 3 / 4));
    EXPECT_EQ(reasonFor(file), "damaged JPEG: Premature end of JPEG file");

    sample::writePng(file, redAndBlue);
    bytes = sample::readBytes(file);
    sample::writeBytes(file, bytes.substr(0, bytes.size() * 3 / 4));
    EXPECT_EQ(reasonFor(file), "damaged PNG: Read Error");
}

TEST_F(Decode, survivesEveryCutAndEveryChangedByte)
{
    const Picture small = sample::twoColours({24, 16}, red, blue);
    const auto isHandled = [this](const std::string& bytes) {
        sample::writeBytes(file, bytes);
        return !reasonFor(file).empty();
    };
    for (const bool isJpeg : {true, false}) {
        isJpeg ? sample::writeJpeg(file, small) : sample::writePng(file, small);
        const std::string bytes = sample::readBytes(file);
        for (std::size_t at = 0; at < bytes.size(); ++at) {
            EXPECT_TRUE(isHandled(bytes.substr(0, at)));
            std::string changed = bytes;
            changed[at] = static_cast<char>(changed[at] ^ 0x01);
            EXPECT_TRUE(isHandled(changed));
        }
    }
}

} // namespace
