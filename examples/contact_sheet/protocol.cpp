#include "examples/contact_sheet/protocol.h"

#include <cstddef>
#include <cstring>
#include <utility>

namespace sheet {

namespace {

enum class Status : std::uint8_t { picture = 1, refusal = 2 };

class Writer {
public:
    template <class Number>
    Writer& number(Number value)
    {
        const auto* start = reinterpret_cast<const char*>(&value);
        mBytes.insert(mBytes.end(), start, start + sizeof value);
        return *this;
    }

    template <class Bytes>
    Writer& rest(const Bytes& bytes)
    {
        mBytes.insert(mBytes.end(), bytes.begin(), bytes.end());
        return *this;
    }

    std::vector<char> take()
    {
        return std::move(mBytes);
    }

private:
    std::vector<char> mBytes;
};

// Reads past the end give zeros and are remembered, so that a message is checked once, at its end.
class Reader {
public:
    explicit Reader(const std::vector<char>& bytes)
        : mBytes(bytes)
    {
    }

    template <class Number>
    Number number()
    {
        Number value{};
        if (mBytes.size() - mAt < sizeof value) {
            mCutShort = true;
            return value;
        }
        std::memcpy(&value, mBytes.data() + mAt, sizeof value);
        mAt += sizeof value;
        return value;
    }

    template <class Bytes>
    Bytes rest()
    {
        Bytes bytes(mBytes.begin() + static_cast<std::ptrdiff_t>(mAt), mBytes.end());
        mAt = mBytes.size();
        return bytes;
    }

    bool cutShort() const
    {
        return mCutShort;
    }

private:
    const std::vector<char>& mBytes;
    std::size_t mAt = 0;
    bool mCutShort = false;
};

Size readSize(Reader& reader)
{
    const auto width = reader.number<std::uint32_t>();
    const auto height = reader.number<std::uint32_t>();
    return {width, height};
}

bool isComplete(const Picture& picture)
{
    const std::size_t wanted =
        std::size_t{picture.size.width} * picture.size.height * bytesPerPixel;
    return wanted != 0 && picture.pixels.size() == wanted;
}

std::optional<Answer> decodePicture(JobId id, Reader& reader)
{
    DecodedPicture decoded;
    decoded.fileSize = readSize(reader);
    decoded.picture.size = readSize(reader);
    decoded.picture.pixels = reader.rest<std::vector<std::uint8_t>>();
    if (reader.cutShort() || !isComplete(decoded.picture))
        return std::nullopt;
    return Answer{id, std::move(decoded)};
}

} // namespace

std::vector<char> encodeJob(const Job& job)
{
    return Writer().number(job.id).number(job.edge).rest(job.path).take();
}

std::vector<char> encodeAnswer(const Answer& answer)
{
    Writer writer;
    writer.number(answer.id);
    if (const auto* refusal = std::get_if<Refusal>(&answer.outcome))
        return writer.number(Status::refusal).rest(refusal->reason).take();

    const auto& decoded = std::get<DecodedPicture>(answer.outcome);
    return writer.number(Status::picture)
        .number(decoded.fileSize.width)
        .number(decoded.fileSize.height)
        .number(decoded.picture.size.width)
        .number(decoded.picture.size.height)
        .rest(decoded.picture.pixels)
        .take();
}

std::optional<Job> decodeJob(const std::vector<char>& bytes)
{
    Reader reader(bytes);
    Job job;
    job.id = reader.number<JobId>();
    job.edge = reader.number<std::uint32_t>();
    job.path = reader.rest<std::string>();
    if (reader.cutShort() || job.edge == 0 || job.path.empty())
        return std::nullopt;
    return job;
}

std::optional<Answer> decodeAnswer(const std::vector<char>& bytes)
{
    Reader reader(bytes);
    const auto id = reader.number<JobId>();
    const auto status = reader.number<Status>();
    if (reader.cutShort())
        return std::nullopt;
    switch (status) {
    case Status::picture:
        return decodePicture(id, reader);
    case Status::refusal:
        return Answer{id, Refusal{reader.rest<std::string>()}};
    }
    return std::nullopt;
}

} // namespace sheet
