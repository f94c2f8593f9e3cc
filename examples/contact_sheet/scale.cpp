#include "examples/contact_sheet/scale.h"

#include <algorithm>
#include <cassert>
#include <utility>

namespace sheet {

// All lengths are measured in units in which a source pixel is as long as the target and a target
// pixel is as long as the source: every border then lies on a whole number, and sums are exact.
// They fit 64 bits up to 2^28 pixels in each direction.

AreaScaler::AreaScaler(Size source, Size target)
    : mSource(source),
      mTarget(target, Colour{}),
      mAcross(std::size_t{target.width} * bytesPerPixel),
      mSums(std::size_t{target.width} * bytesPerPixel)
{
    assert(target.width > 0 && target.width <= source.width);
    assert(target.height > 0 && target.height <= source.height);
}

void AreaScaler::addRow(const std::uint8_t* pixels)
{
    assert(mSourceRow < mSource.height);
    averageAcross(pixels);

    const std::uint64_t top = std::uint64_t{mSourceRow} * mTarget.size.height;
    const std::uint64_t bottom = top + mTarget.size.height;
    const std::uint64_t border = (std::uint64_t{mTargetRow} + 1) * mSource.height;
    ++mSourceRow;
    if (bottom < border) {
        addWeighted(mTarget.size.height);
        return;
    }
    addWeighted(border - top);
    finishTargetRow();
    if (bottom > border)
        addWeighted(bottom - border);
}

Picture AreaScaler::take()
{
    assert(mTargetRow == mTarget.size.height);
    return std::move(mTarget);
}

void AreaScaler::averageAcross(const std::uint8_t* pixels)
{
    std::fill(mAcross.begin(), mAcross.end(), 0);
    const std::uint64_t step = mTarget.size.width;
    std::uint64_t left = 0;
    std::uint64_t border = mSource.width;
    std::uint64_t* sum = mAcross.data();
    for (std::size_t x = 0; x < mSource.width; ++x, pixels += bytesPerPixel) {
        const std::uint64_t right = left + step;
        const std::uint64_t inside = std::min(right, border) - left;
        for (std::size_t channel = 0; channel < bytesPerPixel; ++channel)
            sum[channel] += inside * pixels[channel];
        if (right >= border && x + 1 < mSource.width) {
            sum += bytesPerPixel;
            for (std::size_t channel = 0; channel < bytesPerPixel; ++channel)
                sum[channel] += (right - border) * pixels[channel];
            border += mSource.width;
        }
        left = right;
    }
}

void AreaScaler::addWeighted(std::uint64_t weight)
{
    for (std::size_t at = 0; at < mSums.size(); ++at)
        mSums[at] += weight * mAcross[at];
}

void AreaScaler::finishTargetRow()
{
    const std::uint64_t area = std::uint64_t{mSource.width} * mSource.height;
    assert(area > 0);
    std::uint8_t* row = mTarget.row(mTargetRow);
    for (std::size_t at = 0; at < mSums.size(); ++at)
        row[at] = static_cast<std::uint8_t>((mSums[at] + area / 2) / area);
    std::fill(mSums.begin(), mSums.end(), 0);
    ++mTargetRow;
}

} // namespace sheet
