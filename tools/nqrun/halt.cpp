#include "tools/nqrun/halt.h"

#include "tools/nqrun/text.h"

namespace nqrun {

bool Halt::isReached(std::uint64_t failed, std::uint64_t succeeded) const
{
    if (when == When::Never)
        return false;
    switch (why) {
    case Why::Fail:
        return failed >= count;
    case Why::Success:
        return succeeded >= count;
    case Why::Done:
        return failed + succeeded >= count;
    }
    return false;
}

std::optional<Halt> parseHalt(const std::string& text)
{
    Halt halt;
    if (text == "never")
        return halt;
    const std::size_t comma = text.find(',');
    const std::size_t equals = text.find('=');
    if (comma == text.npos || equals == text.npos || equals < comma)
        return std::nullopt;
    const std::string when = text.substr(0, comma);
    const std::string why = text.substr(comma + 1, equals - comma - 1);
    const std::optional<std::uint64_t> count = parseNumber(text.substr(equals + 1));
    if (!count || *count == 0)
        return std::nullopt;
    halt.count = *count;
    if (when == "soon")
        halt.when = Halt::When::Soon;
    else if (when == "now")
        halt.when = Halt::When::Now;
    else
        return std::nullopt;
    if (why == "fail")
        halt.why = Halt::Why::Fail;
    else if (why == "success")
        halt.why = Halt::Why::Success;
    else if (why == "done")
        halt.why = Halt::Why::Done;
    else
        return std::nullopt;
    return halt;
}

} // namespace nqrun
