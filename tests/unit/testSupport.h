#pragma once

#include "system/nqLog.h"
#include "tests/common/frame.h"
#include "tests/scripted/scriptedMachine.h"

#include <functional>
#include <locale>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

/// Small words that the unit tests share.
namespace support {

using common::Bytes;
using common::bytes;
using common::frame;
using common::header;
using Lines = std::vector<std::string>;

inline Bytes operator+(Bytes left, const Bytes& right)
{
    common::append(left, right);
    return left;
}

/// Digits in groups of three, as a host in another country may have set it up for itself.
class GroupingGlobalLocale {
public:
    GroupingGlobalLocale()
        : mBefore(std::locale::global(std::locale(std::locale::classic(), new Grouping)))
    {
    }
    ~GroupingGlobalLocale()
    {
        std::locale::global(mBefore);
    }
    GroupingGlobalLocale(const GroupingGlobalLocale&) = delete;
    GroupingGlobalLocale& operator=(const GroupingGlobalLocale&) = delete;

private:
    struct Grouping : std::numpunct<char> {
        char do_decimal_point() const override
        {
            return ',';
        }
        char do_thousands_sep() const override
        {
            return '.';
        }
        std::string do_grouping() const override
        {
            return "\3";
        }
    };

    std::locale mBefore;
};

/// The installed logger. Records what is written and lets a test look around at that moment.
class Logger : public nq::nqLog {
public:
    Logger()
    {
        msInstance = this;
    }

    std::function<void()> onWrite;

    void Write(LogEntry& entry, bool flush) override
    {
        nqLog::Write(entry, flush);
        if (onWrite)
            onWrite();
    }
};

/// The level and the write option of an entry, next to its text.
struct Entry {
    int level;
    bool flush;
    std::string message;

    friend bool operator==(const Entry& left, const Entry& right)
    {
        return left.level == right.level && left.flush == right.flush &&
               left.message == right.message;
    }
    friend std::ostream& operator<<(std::ostream& stream, const Entry& entry)
    {
        return stream << "level " << entry.level << (entry.flush ? ", flush: " : ": ")
                      << entry.message;
    }
};

inline std::vector<Entry> entries(const scripted::Machine& machine)
{
    std::vector<Entry> all;
    for (const scripted::Logged& logged : machine.logged)
        all.push_back({logged.entry.mLevel, logged.flush, logged.entry.mMessage});
    return all;
}

} // namespace support
