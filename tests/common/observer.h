#pragma once

#include "nqSchedulerObserver.h"

#include <functional>
#include <string>
#include <vector>

namespace common {

/// Keeps what it is told.
class KeepingObserver : public nq::nqSchedulerObserver {
public:
    using Event = nq::nqSchedulerEvent;

    struct Told : Event {
        std::string mText; // mMessage is lent for the call
    };

    void onEvent(const Event& event) noexcept override
    {
        Told told{event, std::string(event.mMessage)};
        told.mMessage = {};
        mTold.push_back(std::move(told));
        if (mOnEvent)
            mOnEvent(event);
    }

    std::function<void(const Event&)> mOnEvent;
    std::vector<Told> mTold; // in order

    std::vector<Told> of(Event::Kind kind) const
    {
        std::vector<Told> all;
        for (const Told& told : mTold) {
            if (told.mKind == kind)
                all.push_back(told);
        }
        return all;
    }
};

} // namespace common
