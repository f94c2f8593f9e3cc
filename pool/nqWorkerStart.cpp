#include "pool/nqWorkerStart.h"

#include "pool/nqEnvelope.h"

#include <charconv>
#include <string_view>
#include <system_error>

namespace nq {

namespace {

// Followed by the tag and the host, and, when the program is named: device, inode and descriptor.
constexpr std::string_view option = "--nq-pool-worker=";
constexpr char separator = ':';

constexpr int fewestArguments = 3; // program, option, pipe

// Takes the first number off `text`, with the separator before it.
template <typename Number>
bool takeNumber(std::string_view& text, Number& number)
{
    if (text.empty() || text.front() != separator)
        return false;
    text.remove_prefix(1);
    const char* const end = text.data() + text.size();
    const auto [after, error] = std::from_chars(text.data(), end, number);
    text.remove_prefix(static_cast<std::size_t>(after - text.data()));
    return error == std::errc();
}

} // namespace

std::string nqWorkerStart::argument() const
{
    std::string text(option);
    text += tag;
    text += separator + std::to_string(host);
    if (program) {
        text += separator + std::to_string(program->identity.device);
        text += separator + std::to_string(program->identity.inode);
        text += separator + std::to_string(program->descriptor);
    }
    return text;
}

bool nqWorkerStart::isOne(int argc, char* const argv[])
{
    return argc >= fewestArguments &&
           std::string_view(argv[argc - 2]).substr(0, option.size()) == option;
}

std::optional<nqWorkerStart> nqWorkerStart::read(int argc, char* const argv[])
{
    if (!isOne(argc, argv))
        return std::nullopt;
    std::string_view text = argv[argc - 2];
    text.remove_prefix(option.size());
    nqWorkerStart start;
    start.tag = text.substr(0, text.find(separator));
    text.remove_prefix(start.tag.size());
    if (!nqEnvelope::isTag(start.tag) || !takeNumber(text, start.host))
        return std::nullopt;
    if (text.empty())
        return start;

    Program program;
    if (!takeNumber(text, program.identity.device) || !takeNumber(text, program.identity.inode) ||
        !takeNumber(text, program.descriptor) || !text.empty())
        return std::nullopt;
    start.program = program;
    return start;
}

} // namespace nq
