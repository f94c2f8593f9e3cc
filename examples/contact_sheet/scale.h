#pragma once

#include "examples/contact_sheet/picture.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace sheet {

/// Shrinks a picture that arrives row by row, so that a decoder never holds the whole of a large
/// one.
///
/// Each target pixel is the exact average of the area it covers; source pixels on a border count
/// with the share that lies inside. The target must not be larger than the source in either
/// direction, and neither may be empty.
class AreaScaler {
public:
    AreaScaler(Size source, Size target);

    /// The next row of the source, from the top; `pixels` holds source width times three bytes.
    void addRow(const std::uint8_t* pixels);

    /// The result, once every source row was added.
    Picture take();

private:
    void averageAcross(const std::uint8_t* pixels);
    void addWeighted(std::uint64_t weight);
    void finishTargetRow();

    Size mSource;
    Picture mTarget;
    std::vector<std::uint64_t> mAcross; // one source row, summed into target columns
    std::vector<std::uint64_t> mSums;   // the target row being gathered
    std::size_t mSourceRow = 0;
    std::size_t mTargetRow = 0;
};

} // namespace sheet
