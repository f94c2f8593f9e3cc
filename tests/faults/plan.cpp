#include "plan.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

namespace faults {

namespace {

constexpr std::array<const char*, 2> watchedLibraries{
    "libnqSystem.so.3.0", "libnqSchedulerAPI.so.3.0"};
constexpr std::size_t maxLibraryBytes = std::size_t{1} << 20; // as in run.py
constexpr std::uint32_t faultyWorkers = 3;
constexpr std::size_t maxFaults = 8;

/// One byte of a library's code, seen as the place that a call returns to.
struct Place {
    std::atomic<std::uint32_t> mMostCalls; // of any one process
};

/// The layout of the report file; run.py reads it.
struct Report {
    std::atomic<std::uint32_t> mInjections;
    std::atomic<std::uint32_t> mWorkers;
    Place mPlaces[watchedLibraries.size()][maxLibraryBytes];
};

struct Fault {
    std::size_t mLibrary = 0;
    unsigned long mOffset = 0;
    int mSelector = -1;
    std::uint32_t mFirst = 0;
    std::uint32_t mCount = 0;
    Verdict mVerdict;
    std::uint32_t mCallsSeen = 0; // that it could disturb
};

struct Range {
    std::uintptr_t mBegin = 0;
    std::uintptr_t mEnd = 0;
};

std::array<Range, watchedLibraries.size()> ranges;
std::array<Fault, maxFaults> faultList;
std::size_t faultCount = 0;
std::atomic<std::uint32_t> calls[watchedLibraries.size()][maxLibraryBytes];
bool isCounted = false;
Report* report = nullptr; // null: nobody asked, and nothing is watched

[[noreturn]] void giveUp(const char* why, const char* what)
{
    std::fprintf(stderr, "fault shim: %s: %s\n", why, what);
    std::_Exit(EXIT_FAILURE);
}

std::size_t libraryNamed(const char* path)
{
    const char* slash = std::strrchr(path, '/');
    const char* name = slash != nullptr ? slash + 1 : path;
    std::size_t library = 0;
    while (library < watchedLibraries.size() && std::strcmp(name, watchedLibraries[library]) != 0)
        ++library;
    return library;
}

int noteRange(dl_phdr_info* info, std::size_t, void*)
{
    const std::size_t library = libraryNamed(info->dlpi_name);
    if (library == watchedLibraries.size())
        return 0;
    Range& range = ranges[library];
    range.mBegin = info->dlpi_addr;
    for (int index = 0; index < info->dlpi_phnum; ++index) {
        const ElfW(Phdr)& segment = info->dlpi_phdr[index];
        if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0)
            range.mEnd = info->dlpi_addr + segment.p_vaddr + segment.p_memsz;
    }
    if (range.mEnd - range.mBegin > maxLibraryBytes)
        giveUp("larger than the report has room for", info->dlpi_name);
    return 0;
}

Action actionNamed(const char* name)
{
    if (std::strcmp(name, "fail") == 0)
        return Action::fail;
    if (std::strcmp(name, "fail-after") == 0)
        return Action::failAfter;
    if (std::strcmp(name, "hang-up") == 0)
        return Action::hangUp;
    if (std::strcmp(name, "shorten") == 0)
        return Action::shorten;
    giveUp("no such action", name);
}

void addFault(const char* text, bool isFault)
{
    Fault fault;
    char library[64];
    char action[16];
    // NOLINTNEXTLINE(cert-err34-c): run.py has written these numbers.
    const int fields = std::sscanf(
        text,
        "%63[^+]+%lx %d %u %u %15s %d",
        library,
        &fault.mOffset,
        &fault.mSelector,
        &fault.mFirst,
        &fault.mCount,
        action,
        &fault.mVerdict.mValue);
    if (fields != 7 || faultCount == maxFaults)
        giveUp("not understood", text);
    fault.mLibrary = libraryNamed(library);
    fault.mVerdict.mAction = actionNamed(action);
    fault.mVerdict.mIsFault = isFault;
    faultList[faultCount++] = fault;
}

void readFaults(const char* variable, bool isFault)
{
    const char* text = std::getenv(variable);
    while (text != nullptr && *text != '\0') {
        addFault(text, isFault);
        text = std::strchr(text, ';');
        if (text != nullptr)
            ++text;
    }
}

void mapReport(const char* path)
{
    const int file = open(path, O_RDWR | O_CLOEXEC);
    void* memory = file == -1
                       ? MAP_FAILED
                       : mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (memory == MAP_FAILED)
        giveUp("no report", path);
    close(file);
    report = static_cast<Report*>(memory);
}

[[gnu::constructor]] void prepare()
{
    const char* path = std::getenv("NQ_FAULT_REPORT");
    const bool isHost = std::strcmp(program_invocation_short_name, "fault_host") == 0;
    const bool isWorker = std::strcmp(program_invocation_short_name, "fault_worker") == 0;
    if (path == nullptr || (!isHost && !isWorker))
        return;
    const char* counted = std::getenv("NQ_FAULT_COUNT");
    isCounted = counted != nullptr && std::strcmp(counted, isHost ? "host" : "worker") == 0;
    if (isHost)
        readFaults("NQ_FAULT_HOST", true);
    dl_iterate_phdr(noteRange, nullptr);
    mapReport(path);
    if (isWorker && report->mWorkers.fetch_add(1) < faultyWorkers)
        readFaults("NQ_FAULT_WORKER", true);
    // Last: where several apply to a call, the first one does.
    readFaults("NQ_FAULT_KERNEL", false);
}

/// Whether this is a call that the fault could disturb, and one of those that it does.
bool strikes(Fault& fault, int selector, std::size_t length)
{
    const bool canSelect = fault.mSelector == -1 || fault.mSelector == selector;
    const bool canShorten = fault.mVerdict.mAction != Action::shorten ||
                            length > static_cast<std::size_t>(fault.mVerdict.mValue);
    if (!canSelect || !canShorten)
        return false;
    const std::uint32_t call = ++fault.mCallsSeen;
    return call >= fault.mFirst && (fault.mCount == 0 || call - fault.mFirst < fault.mCount);
}

Verdict verdictOnCall(std::size_t library, std::size_t offset, int selector, std::size_t length)
{
    const std::uint32_t call = ++calls[library][offset];
    Place& place = report->mPlaces[library][offset];
    if (isCounted && place.mMostCalls < call)
        place.mMostCalls = call;
    for (std::size_t index = 0; index < faultCount; ++index) {
        Fault& fault = faultList[index];
        if (fault.mLibrary == library && fault.mOffset == offset &&
            strikes(fault, selector, length))
            return fault.mVerdict;
    }
    return {};
}

} // namespace

Verdict verdictOn(const void* returnAddress, int selector, std::size_t length)
{
    if (report == nullptr)
        return {};
    const auto address = reinterpret_cast<std::uintptr_t>(returnAddress);
    for (std::size_t library = 0; library < ranges.size(); ++library)
        if (address >= ranges[library].mBegin && address < ranges[library].mEnd)
            return verdictOnCall(library, address - ranges[library].mBegin, selector, length);
    return {};
}

void noteInjection(const Verdict& verdict)
{
    if (verdict.mIsFault)
        ++report->mInjections;
}

} // namespace faults
