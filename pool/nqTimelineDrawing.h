#pragma once

#include "pool/nqTimelineRecord.h"

#include <string>

namespace nq {

/// The record as an SVG file, a thousand units wide. `title` may be empty.
std::string drawTimeline(const nqTimelineRecord& record, const std::string& title);

} // namespace nq
