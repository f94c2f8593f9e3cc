#include "tools/nqrun/joblog.h"

#include "tools/nqrun/error.h"
#include "tools/nqrun/io.h"
#include "tools/nqrun/text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace nqrun {

namespace {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds syncEvery{100};
constexpr std::size_t chunkBytes = std::size_t{1} << 20;
constexpr std::string_view columns =
    "Seq\tHost\tStarttime\tJobRuntime\tSend\tReceive\tExitval\tSignal\tCommand";

// FNV-1a, which tells one item from another; nobody gains from making two look alike.
std::uint32_t checksum(std::string_view text)
{
    std::uint64_t hash = 0xcbf29ce484222325U;
    for (const char byte : text)
        hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3U;
    return static_cast<std::uint32_t>(hash ^ (hash >> 32U));
}

// JSON has no way to say bytes that are not text.
Json textOrBytes(const std::string& text)
{
    if (isUtf8(text))
        return text;
    std::string hex;
    for (const char byte : text) {
        std::array<char, 3> digits{};
        std::snprintf(digits.data(), digits.size(), "%02x", static_cast<unsigned char>(byte));
        hex += digits.data();
    }
    return Json{{"hex", hex}};
}

std::optional<std::string> readTextOrBytes(const Json& value)
{
    if (value.is_string())
        return value.get<std::string>();
    if (!value.is_object() || !value.contains("hex") || !value["hex"].is_string())
        return std::nullopt;
    const auto hex = value["hex"].get<std::string>();
    if (hex.size() % 2 != 0 || hex.find_first_not_of("0123456789abcdef") != hex.npos)
        return std::nullopt;
    std::string bytes;
    for (std::size_t at = 0; at < hex.size(); at += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(at, 2), nullptr, 16));
    return bytes;
}

double seconds(std::int64_t microseconds)
{
    return static_cast<double>(microseconds) / 1e6;
}

std::string jsonLine(const Finished& finished)
{
    Json line;
    line["index"] = finished.index;
    line["item"] = textOrBytes(finished.identity);
    line["attempt"] = finished.attempt;
    line["final"] = finished.isFinal;
    line["outcome"] = finished.outcome;
    if (finished.outcome == "exit" || finished.outcome == "not started")
        line["status"] = finished.status;
    if (finished.signal != 0)
        line["signal"] = finished.signal;
    line["started"] = seconds(finished.startedAt);
    line["seconds"] = seconds(finished.ran);
    line["peak_memory"] = finished.peakMemory;
    line["stdout_bytes"] = finished.outputBytes;
    line["stderr_bytes"] = finished.errorBytes;
    if (!finished.isDone) {
        line["failure"] = textOrBytes(finished.failure);
        line["last_words"] = textOrBytes(finished.lastWords);
    }
    return line.dump();
}

std::string parallelLine(const Finished& finished)
{
    // As the other writes them: an ended command has no exit status.
    const bool isEnded =
        finished.outcome == "timeout" || finished.outcome == "memory" || finished.outcome == "lost";
    // One that has failed must not look like one that is done, as a worker's job may that has
    // neither.
    const int status = isEnded                ? -1
                       : finished.isDone      ? 0
                       : finished.signal != 0 ? 0
                       : finished.status != 0 ? finished.status
                                              : 1;
    std::array<char, 160> numbers{};
    std::snprintf(
        numbers.data(),
        numbers.size(),
        "%llu\t:\t%.3f\t%10.3f\t0\t%llu\t%d\t%d\t",
        static_cast<unsigned long long>(finished.index),
        seconds(finished.startedAt),
        seconds(finished.ran),
        static_cast<unsigned long long>(finished.outputBytes),
        status,
        isEnded ? 9 : finished.signal);
    return numbers.data() + finished.identity;
}

struct Entry {
    std::uint64_t index = 0;
    std::string identity;
    Logged state = Logged::No;
};

std::optional<Entry> readJsonLine(std::string_view text)
{
    const Json line = Json::parse(text, nullptr, false);
    if (!line.is_object() || !line.contains("index") || !line["index"].is_number_unsigned() ||
        !line.contains("item") || !line.contains("final") || !line["final"].is_boolean() ||
        !line.contains("outcome") || !line["outcome"].is_string())
        return std::nullopt;
    const std::optional<std::string> identity = readTextOrBytes(line["item"]);
    if (!identity)
        return std::nullopt;
    Entry entry{line["index"].get<std::uint64_t>(), *identity, Logged::No};
    if (line["final"].get<bool>())
        entry.state = line["outcome"] == "done" ? Logged::Done : Logged::Failed;
    return entry;
}

std::optional<Entry> readParallelLine(std::string_view text)
{
    std::array<std::string_view, 9> column;
    for (std::size_t number = 0; number < column.size(); ++number) {
        const bool isLast = number + 1 == column.size();
        const std::size_t end = isLast ? text.size() : text.find('\t');
        if (end == text.npos)
            return std::nullopt;
        column[number] = text.substr(0, end);
        text.remove_prefix(isLast ? end : end + 1);
    }
    const std::optional<std::uint64_t> index = parseNumber(column[0]);
    if (!index)
        return std::nullopt;
    const bool isDone = column[6] == "0" && column[7] == "0";
    return Entry{*index, std::string(column[8]), isDone ? Logged::Done : Logged::Failed};
}

std::optional<Entry> readLine(std::string_view text, JoblogFormat format)
{
    std::optional<Entry> entry =
        format == JoblogFormat::Json ? readJsonLine(text) : readParallelLine(text);
    if (entry && entry->index == 0)
        return std::nullopt;
    return entry;
}

std::string commandOf(const Json& header)
{
    std::string line;
    for (const Json& word : header.value("command", Json::array()))
        line += (line.empty() ? "" : " ") + shellQuoted(readTextOrBytes(word).value_or("?"));
    return line;
}

} // namespace

void JoblogHistory::note(std::uint64_t index, std::string_view identity, Logged state)
{
    mPages[index / pageEntries][index % pageEntries] = {checksum(identity), state};
}

const JoblogHistory::Entry* JoblogHistory::find(std::uint64_t index) const
{
    const auto page = mPages.find(index / pageEntries);
    return page == mPages.end() ? nullptr : &page->second[index % pageEntries];
}

Logged JoblogHistory::stateOf(std::uint64_t index) const
{
    const Entry* const entry = find(index);
    return entry != nullptr ? entry->state : Logged::No;
}

bool JoblogHistory::isOf(std::uint64_t index, std::string_view identity) const
{
    const Entry* const entry = find(index);
    return entry != nullptr && entry->check == checksum(identity);
}

std::uint64_t JoblogHistory::count() const
{
    std::uint64_t count = 0;
    for (const auto& [number, page] : mPages)
        count += static_cast<std::uint64_t>(
            std::count_if(page.begin(), page.end(), [](const Entry& entry) {
                return entry.state != Logged::No;
            }));
    return count;
}

std::string joblogHeader(const Joblog::Run& run)
{
    Json header;
    header["nqrun"] = 1;
    header["kind"] = run.kind;
    header["command"] = Json::array();
    for (const std::string& word : run.command)
        header["command"].push_back(textOrBytes(word));
    return header.dump();
}

std::string joblogLine(const Finished& finished, JoblogFormat format)
{
    return format == JoblogFormat::Json ? jsonLine(finished) : parallelLine(finished);
}

Joblog::Joblog(std::string path, JoblogFormat format, const Run& run, bool resume)
    : mPath(std::move(path)),
      mFormat(format)
{
    const std::string name = shown(mPath);
    mFile = Descriptor(::open(mPath.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666));
    struct stat about {};
    if (!mFile.isOpen() || ::fstat(mFile.number(), &about) != 0)
        throw Error("the joblog " + name + " cannot be opened: " + lastError());
    mIsFile = S_ISREG(about.st_mode);
    if (mIsFile) {
        lockFile(mFile.number(), "the joblog " + name);
        ::fstat(mFile.number(), &about); // it may have grown until then
        mSize = static_cast<std::uint64_t>(about.st_size);
    }
    if (mSize != 0 && !resume)
        throw Error(
            "the joblog " + name +
            " is there already: add --resume or --resume-failed to go on with it, or remove it");
    if (mSize != 0)
        load(run);
    if (mSize == 0)
        append(format == JoblogFormat::Json ? joblogHeader(run) : std::string(columns));
    sync();
}

Joblog::~Joblog()
{
    if (mUnsyncedSince && mIsFile)
        ::fdatasync(mFile.number());
}

void Joblog::load(const Run& run)
{
    const std::string name = "the joblog " + shown(mPath);
    std::string text;
    std::uint64_t offset = 0; // of the text in the file
    std::uint64_t number = 0;
    std::uint64_t good = 0;    // end of the last line that makes sense
    std::uint64_t badLine = 0; // the first that does not
    for (bool isAtEnd = false; !isAtEnd;) {
        const std::string chunk = readAt(mFile.number(), offset + text.size(), chunkBytes);
        isAtEnd = chunk.empty();
        text += chunk;
        std::size_t begin = 0;
        for (std::size_t end = 0; (end = text.find('\n', begin)) != text.npos; begin = end + 1) {
            const std::string_view line = std::string_view(text).substr(begin, end - begin);
            if (badLine != 0)
                throw Error(
                    name + " cannot be resumed from: its line " + std::to_string(badLine) +
                    " makes no sense");
            ++number;
            if (number == 1) {
                const std::string wanted =
                    mFormat == JoblogFormat::Json ? joblogHeader(run) : std::string(columns);
                if (line != wanted) {
                    const Json header = Json::parse(line, nullptr, false);
                    if (mFormat == JoblogFormat::Json && header.is_object() &&
                        header.contains("nqrun"))
                        throw Error(
                            name + " is of another command line: " + shown(commandOf(header), 200));
                    throw Error(name + " has another format, or is no joblog at all");
                }
            } else if (const std::optional<Entry> entry = readLine(line, mFormat)) {
                mHistory.note(entry->index, entry->identity, entry->state);
            } else {
                badLine = number;
                continue;
            }
            good = offset + end + 1;
        }
        text.erase(0, begin);
        offset += begin;
    }
    text.erase(text.find_last_not_of('\0') + 1); // of a size that was on disk before the bytes
    if (number == 0 && text != joblogHeader(run).substr(0, text.size()) &&
        text != columns.substr(0, text.size()))
        throw Error(name + " is no joblog");
    if (good == mSize)
        return;
    if (::ftruncate(mFile.number(), static_cast<off_t>(good)) != 0) // torn in the middle
        throw Error(name + " has a torn last line, which cannot be cut off: " + lastError());
    mSize = good;
}

void Joblog::write(const Finished& finished)
{
    if (mFormat == JoblogFormat::Parallel && !finished.isFinal)
        return; // has no way to say that another attempt follows
    append(joblogLine(finished, mFormat));
}

void Joblog::append(const std::string& line)
{
    const std::string whole = line + '\n';
    if (!writeAll(mFile.number(), whole)) {
        const std::string problem = lastError();
        if (mIsFile && ::ftruncate(mFile.number(), static_cast<off_t>(mSize)) != 0)
            throw Error("the joblog " + shown(mPath) + " has a torn last line: " + problem);
        throw Error("the joblog " + shown(mPath) + " cannot be written: " + problem);
    }
    mSize += whole.size();
    if (!mUnsyncedSince)
        mUnsyncedSince = Clock::now();
}

std::optional<Clock::time_point> Joblog::syncDue() const
{
    if (!mUnsyncedSince || !mIsFile)
        return std::nullopt;
    return *mUnsyncedSince + syncEvery;
}

void Joblog::sync()
{
    if (std::exchange(mUnsyncedSince, std::nullopt) && mIsFile)
        checkSync(::fdatasync(mFile.number()), "the joblog " + shown(mPath));
}

} // namespace nqrun
