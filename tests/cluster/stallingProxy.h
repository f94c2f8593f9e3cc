#pragma once

#include <atomic>
#include <map>
#include <string>
#include <thread>

namespace cluster {

/// Stands between a server and its clients, and can stop moving bytes without closing anything, as
/// a network does that is cut.
class StallingProxy {
public:
    StallingProxy(std::string path, std::string server);
    ~StallingProxy();
    StallingProxy(const StallingProxy&) = delete;
    StallingProxy& operator=(const StallingProxy&) = delete;

    /// Connections that are there move nothing any more; later ones do.
    void stallThoseThereAre();

    /// Nothing moves, until it is called with false.
    void cut(bool isCut);

    /// The first connection brings no answers, until it is called with false.
    void holdFirst(bool isHeld);

private:
    void run();
    void accept();
    void close(int descriptor);

    std::string mPath;
    std::string mServer;
    int mListener;
    int mWake;
    std::atomic<bool> mIsEnding{false};
    std::atomic<bool> mIsCut{false};
    std::atomic<bool> mIsStalling{false};
    std::atomic<bool> mIsFirstHeld{false};
    int mFirstServer = -1;
    std::map<int, int> mPeers;
    std::thread mThread;
};

} // namespace cluster
