#pragma once

#include "examples/contact_sheet/picture.h"

#include <cstdio>
#include <memory>

namespace sheet {

/// Writes a PNG file band by band, so that no one holds the whole of a large picture. Every failure
/// is a std::runtime_error. `file` is borrowed.
class PngWriter {
public:
    PngWriter(std::FILE* file, Size size);
    ~PngWriter();

    PngWriter(const PngWriter&) = delete;
    PngWriter& operator=(const PngWriter&) = delete;

    /// The next rows from the top; as wide as the picture.
    void write(const Picture& band);

    /// Once all rows are written.
    void finish();

private:
    struct State;
    std::unique_ptr<State> mState;
};

} // namespace sheet
