#include "examples/contact_sheet/png_writer.h"

#include <cassert>
#include <csetjmp>
#include <new>
#include <stdexcept>
#include <string>

#include <png.h>

namespace sheet {

namespace {

constexpr int bitsPerSample = 8;

struct Errors {
    std::jmp_buf escape;
    char text[256];
};

// The encoder must not return from here, and a C++ exception must not pass through its C frames.
[[noreturn]] void leaveEncoder(png_structp encoder, png_const_charp message)
{
    Errors& errors = *static_cast<Errors*>(png_get_error_ptr(encoder));
    std::snprintf(errors.text, sizeof errors.text, "%s", message);
    std::longjmp(errors.escape, 1);
}

void ignoreWarning(png_structp, png_const_charp) {}

} // namespace

struct PngWriter::State {
    Errors errors{};
    png_structp encoder = nullptr;
    png_infop info = nullptr;
    Size size;

    State() = default;
    ~State()
    {
        png_destroy_write_struct(&encoder, &info);
    }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    template <class Call>
    void guarded(Call call)
    {
        if (setjmp(errors.escape) !=
            0) // NOLINT(bugprone-*): no object with a destructor is skipped
            throw std::runtime_error(std::string("cannot write the picture: ") + errors.text);
        call();
    }
};

PngWriter::PngWriter(std::FILE* file, Size size)
    : mState(std::make_unique<State>())
{
    State& state = *mState;
    state.size = size;
    state.encoder =
        png_create_write_struct(PNG_LIBPNG_VER_STRING, &state.errors, leaveEncoder, ignoreWarning);
    state.info = state.encoder ? png_create_info_struct(state.encoder) : nullptr;
    if (!state.info)
        throw std::bad_alloc();
    state.guarded([&state, file, size] {
        png_init_io(state.encoder, file);
        png_set_IHDR(
            state.encoder,
            state.info,
            size.width,
            size.height,
            bitsPerSample,
            PNG_COLOR_TYPE_RGB,
            PNG_INTERLACE_NONE,
            PNG_COMPRESSION_TYPE_DEFAULT,
            PNG_FILTER_TYPE_DEFAULT);
        png_write_info(state.encoder, state.info);
    });
}

PngWriter::~PngWriter() = default;

void PngWriter::write(const Picture& band)
{
    assert(band.size.width == mState->size.width);
    State& state = *mState;
    for (std::uint32_t y = 0; y < band.size.height; ++y) {
        const std::uint8_t* row = band.row(y);
        state.guarded([&state, row] { png_write_row(state.encoder, row); });
    }
}

void PngWriter::finish()
{
    State& state = *mState;
    state.guarded([&state] { png_write_end(state.encoder, nullptr); });
}

} // namespace sheet
