#include "examples/contact_sheet/text.h"

#include <algorithm>
#include <stdexcept>
#include <unordered_map>
#include <utility>

#include <fontconfig/fontconfig.h>
#include <ft2build.h>
#include FT_FREETYPE_H

namespace sheet {

namespace {

constexpr char32_t replacement = U'\uFFFD';
constexpr char32_t ellipsis = U'\u2026';
constexpr long subpixels = 64; // FreeType's lengths are sixty-fourths of a pixel

struct Sequence {
    unsigned length;
    char32_t start;    // the bits of the first byte
    char32_t smallest; // what needs this many bytes
};

Sequence sequenceOf(unsigned char first)
{
    if (first < 0x80)
        return {1, first, 0};
    if (first >= 0xc0 && first < 0xe0)
        return {2, first & 0x1fu, 0x80};
    if (first >= 0xe0 && first < 0xf0)
        return {3, first & 0x0fu, 0x800};
    if (first >= 0xf0 && first < 0xf8)
        return {4, first & 0x07u, 0x10000};
    return {0, 0, 0};
}

bool isCodePoint(char32_t value)
{
    return value <= 0x10ffff && (value < 0xd800 || value > 0xdfff);
}

// Takes one code point off `text` at `at`. A control character has no glyph and would only confuse.
char32_t nextCodePoint(const std::string& text, std::size_t& at)
{
    const Sequence sequence = sequenceOf(static_cast<unsigned char>(text[at]));
    char32_t value = sequence.start;
    for (unsigned index = 1; index < sequence.length; ++index) {
        const std::size_t place = at + index;
        const unsigned byte = place < text.size() ? static_cast<unsigned char>(text[place]) : 0u;
        if ((byte & 0xc0u) != 0x80u) {
            ++at;
            return replacement;
        }
        value = value << 6 | (byte & 0x3fu);
    }
    if (sequence.length == 0 || value < sequence.smallest || !isCodePoint(value)) {
        ++at;
        return replacement;
    }
    at += sequence.length;
    return value < 0x20 || value == 0x7f ? replacement : value;
}

std::uint8_t blend(std::uint8_t below, std::uint8_t above, unsigned coverage)
{
    return static_cast<std::uint8_t>((below * (255 - coverage) + above * coverage + 127) / 255);
}

void blendPixel(std::uint8_t* pixel, Colour ink, unsigned coverage)
{
    pixel[0] = blend(pixel[0], ink.red, coverage);
    pixel[1] = blend(pixel[1], ink.green, coverage);
    pixel[2] = blend(pixel[2], ink.blue, coverage);
}

void drawGlyph(Picture& onto, const FT_GlyphSlotRec_& glyph, long pen, long baseline, Colour ink)
{
    const FT_Bitmap& bitmap = glyph.bitmap;
    if (bitmap.pixel_mode != FT_PIXEL_MODE_GRAY)
        return;
    const auto [width, height] = onto.size;
    for (unsigned row = 0; row < bitmap.rows; ++row) {
        const long y = baseline - glyph.bitmap_top + long{row};
        const std::uint8_t* coverage = bitmap.buffer + long{row} * bitmap.pitch;
        for (unsigned column = 0; column < bitmap.width; ++column) {
            const long x = pen + glyph.bitmap_left + long{column};
            if (x < 0 || x >= long{width} || y < 0 || y >= long{height})
                continue;
            std::uint8_t* line = onto.row(static_cast<std::size_t>(y));
            blendPixel(line + static_cast<std::size_t>(x) * bytesPerPixel, ink, coverage[column]);
        }
    }
}

struct PatternDeleter {
    void operator()(FcPattern* pattern) const
    {
        FcPatternDestroy(pattern);
    }
};
struct FontSetDeleter {
    void operator()(FcFontSet* set) const
    {
        FcFontSetDestroy(set);
    }
};
using FontSet = std::unique_ptr<FcFontSet, FontSetDeleter>;
struct ConfigDeleter {
    void operator()(FcConfig* config) const
    {
        FcConfigDestroy(config);
    }
};

// The machine's fonts, the best sans-serif one first.
FontSet sansSerifFonts()
{
    const std::unique_ptr<FcPattern, PatternDeleter> wish(
        FcNameParse(reinterpret_cast<const FcChar8*>("DejaVu Sans,sans-serif")));
    const std::unique_ptr<FcConfig, ConfigDeleter> config(FcInitLoadConfigAndFonts());
    FcConfigSubstitute(config.get(), wish.get(), FcMatchPattern);
    FcDefaultSubstitute(wish.get());
    FcResult result = FcResultMatch;
    return FontSet(FcFontSort(config.get(), wish.get(), FcTrue, nullptr, &result));
}

bool hasGlyph(FcPattern* font, char32_t code)
{
    FcCharSet* characters = nullptr;
    return FcPatternGetCharSet(font, FC_CHARSET, 0, &characters) == FcResultMatch &&
           FcCharSetHasChar(characters, code) == FcTrue;
}

} // namespace

std::u32string codePoints(const std::string& utf8)
{
    std::u32string codes;
    for (std::size_t at = 0; at < utf8.size();)
        codes.push_back(nextCodePoint(utf8, at));
    return codes;
}

std::u32string elided(const std::u32string& text, std::uint32_t width, const Measure& measure)
{
    if (measure(text) <= width)
        return text;
    for (std::size_t kept = text.size() - 1; kept > 0; --kept) {
        const std::size_t atEnd = kept / 2;
        std::u32string shorter =
            text.substr(0, kept - atEnd) + ellipsis + text.substr(text.size() - atEnd);
        if (measure(shorter) <= width)
            return shorter;
    }
    return std::u32string(1, ellipsis);
}

std::vector<std::u32string> wrapped(
    const std::u32string& text, std::uint32_t width, std::size_t maxLines, const Measure& measure)
{
    std::vector<std::u32string> lines;
    std::u32string left = text;
    while (!left.empty() && measure(left) > width && lines.size() + 1 < maxLines) {
        std::size_t end = left.size();
        while (end > 1 && measure(left.substr(0, end)) > width)
            --end;
        // The line may end right before a blank; without any blank it breaks inside the word.
        const std::size_t blank = left.rfind(U' ', end);
        const bool breaksWord = blank == std::u32string::npos || blank == 0;
        lines.push_back(left.substr(0, breaksWord ? end : blank));
        left.erase(0, breaksWord ? end : blank + 1);
    }
    if (!left.empty())
        lines.push_back(elided(left, width, measure));
    return lines;
}

// Fonts are opened when their first character is drawn.
struct Font::State {
    State() = default;
    ~State()
    {
        for (const auto& [file, face] : faces)
            FT_Done_Face(face);
        if (library)
            FT_Done_FreeType(library);
    }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    FT_Face open(const std::string& file, int index);
    FT_Face open(FcPattern* font);
    void openFirstMachineFont();
    FT_Face faceFor(char32_t code);
    FT_GlyphSlot load(char32_t code);
    long advance(char32_t code);

    FT_Library library = nullptr;
    std::uint32_t pixelHeight = 0;
    FT_Face first = nullptr;
    FontSet machineFonts;                               // empty when the user named a file
    std::vector<std::pair<std::string, FT_Face>> faces; // every font opened so far
    std::unordered_map<char32_t, long> advances;        // so that measuring draws no glyph twice
};

FT_Face Font::State::open(const std::string& file, int index)
{
    const std::string key = file + '#' + std::to_string(index);
    for (const auto& [opened, face] : faces)
        if (opened == key)
            return face;
    FT_Face face = nullptr;
    if (FT_New_Face(library, file.c_str(), index, &face) != 0)
        return nullptr;
    faces.emplace_back(key, face);
    return FT_Set_Pixel_Sizes(face, 0, pixelHeight) == 0 ? face : nullptr;
}

FT_Face Font::State::open(FcPattern* font)
{
    FcChar8* file = nullptr;
    int index = 0;
    if (FcPatternGetString(font, FC_FILE, 0, &file) != FcResultMatch)
        return nullptr;
    FcPatternGetInteger(font, FC_INDEX, 0, &index);
    return open(reinterpret_cast<const char*>(file), index);
}

FT_Face Font::State::faceFor(char32_t code)
{
    if (!machineFonts || FT_Get_Char_Index(first, code) != 0)
        return first;
    for (int at = 0; at < machineFonts->nfont; ++at) {
        FcPattern* font = machineFonts->fonts[at];
        if (!hasGlyph(font, code))
            continue;
        if (FT_Face face = open(font))
            return face;
    }
    return first;
}

FT_GlyphSlot Font::State::load(char32_t code)
{
    FT_Face face = faceFor(code);
    return FT_Load_Char(face, code, FT_LOAD_RENDER) == 0 ? face->glyph : nullptr;
}

void Font::State::openFirstMachineFont()
{
    machineFonts = sansSerifFonts();
    for (int at = 0; !first && machineFonts && at < machineFonts->nfont; ++at)
        first = open(machineFonts->fonts[at]);
}

long Font::State::advance(char32_t code)
{
    const auto known = advances.find(code);
    if (known != advances.end())
        return known->second;
    const FT_GlyphSlot glyph = load(code);
    return advances[code] = glyph ? glyph->advance.x : 0;
}

Font::Font(const std::string& file, std::uint32_t pixelHeight)
    : mState(std::make_unique<State>())
{
    mState->pixelHeight = pixelHeight;
    if (FT_Init_FreeType(&mState->library) != 0)
        throw std::runtime_error("the font library cannot be started");
    if (file.empty())
        mState->openFirstMachineFont();
    else
        mState->first = mState->open(file, 0);
    if (mState->first)
        return;
    throw std::runtime_error(
        file.empty() ? "no font found on this machine; install one (on Debian: fonts-dejavu-core) "
                       "or name a font file with --font"
                     : "no usable font in " + file);
}

Font::~Font() = default;

std::uint32_t Font::lineHeight() const
{
    return static_cast<std::uint32_t>(mState->first->size->metrics.height / subpixels);
}

std::uint32_t Font::width(const std::u32string& text)
{
    long width = 0;
    for (const char32_t code : text)
        width += mState->advance(code);
    return static_cast<std::uint32_t>((std::max(width, 0L) + subpixels - 1) / subpixels);
}

void Font::draw(
    Picture& onto, std::uint32_t x, std::uint32_t y, const std::u32string& text, Colour ink)
{
    const long baseline = long{y} + mState->first->size->metrics.ascender / subpixels;
    long pen = long{x} * subpixels;
    for (const char32_t code : text) {
        FT_GlyphSlot glyph = mState->load(code);
        if (!glyph)
            continue;
        drawGlyph(onto, *glyph, pen / subpixels, baseline, ink);
        pen += glyph->advance.x;
    }
}

} // namespace sheet
