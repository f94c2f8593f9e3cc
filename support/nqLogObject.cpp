#include "support/nqLogObject.h"

namespace nq {

nqLogObject::~nqLogObject()
{
    if (mStream == nullptr)
        return;
    const nqThread::Uncancellable untilEmitted; // a host's logger may hold cancellation points
    const std::string message = mStream->str();
    if (!message.empty())
        emit(message);
}

void nqLogObject::emit(const std::string& message)
{
    nqLog::LogEntry entry;
    entry.mTimestampMs = mTimestampMs;
    entry.mMessage = message;
    if (mSecondText != nullptr)
        entry.mSecondText.swap(*mSecondText);
    if (mSystemLogText != nullptr)
        entry.mSystemLogText.swap(*mSystemLogText);
    entry.mThreadId = mThreadId;
    entry.mLevel = mLevel;
    entry.computeLogPrefix(true);

    if (mSystemLogText != nullptr)
        nqLog::WriteToSystemLog(entry);
    if (mLogger != nullptr)
        mLogger->Write(entry, mWriteOption);
    if (mSystemLogText == nullptr && mLogger == nullptr)
        nqLog::WriteToStandardOutput(entry);
}

} // namespace nq
