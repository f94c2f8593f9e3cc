#pragma once

#include "system/nqLog.h"
#include "system/nqSystemUtils.h"
#include "system/nqThread.h"

#include <cstdint>
#include <memory>
#include <sstream>
#include <string>

namespace nq {

/// One log message in the making: stream pieces into it, and its destructor hands the whole to the
/// process-wide logger, or to standard output when there is none.
///
/// The stream follows the global locale, which may group digits; format numbers beforehand. The
/// pieces are evaluated even when the level is disabled. Belongs to the thread that made it. What
/// fails while the message is emitted ends the process.
class nqLogObject {
public:
    /// `writeOption` goes unchanged to nqLog::Write.
    nqLogObject(int level, bool writeOption)
        : mThreadId(nqThread::CurrentThreadId()),
          mLevel(level),
          mTimestampMs(nqSystemUtils::GetMSecElapsedSinceEpoch()),
          mWriteOption(writeOption)
    {
        if (nqLog::msInstance == nullptr)
            return;
        mLogger = nqLog::msInstance;
        if (!mLogger->isLevelEnabled(mLevel)) {
            mLogger = nullptr;
            mLevel = nqLog::Disabled;
        }
    }

    ~nqLogObject();

    nqLogObject(const nqLogObject&) = delete;
    nqLogObject& operator=(const nqLogObject&) = delete;

    template <typename T>
    nqLogObject& operator<<(const T& value)
    {
        if (mLevel == nqLog::Disabled)
            return *this;
        if (mStream == nullptr)
            mStream = std::make_unique<std::stringstream>();
        *mStream << value;
        return *this;
    }

private:
    void emit(const std::string& message);

    std::string mThreadId;
    std::unique_ptr<std::string> mSecondText;
    std::unique_ptr<std::string> mSystemLogText; // when set, the entry also goes to the system log
    nqLog* mLogger = nullptr;                    // not owned
    std::unique_ptr<std::stringstream> mStream;  // made by the first insertion
    std::int32_t mLevel;
    std::uint64_t mTimestampMs;
    bool mWriteOption;
};

} // namespace nq
