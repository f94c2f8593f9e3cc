#include "tests/cluster/stallingProxy.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace cluster {

namespace {

sockaddr_un addressOf(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

} // namespace

StallingProxy::StallingProxy(std::string path, std::string server)
    : mPath(std::move(path)),
      mServer(std::move(server)),
      mListener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)),
      mWake(::eventfd(0, EFD_CLOEXEC))
{
    const sockaddr_un address = addressOf(mPath);
    ::bind(mListener, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    ::listen(mListener, 64);
    mThread = std::thread([this] { run(); });
}

StallingProxy::~StallingProxy()
{
    mIsEnding = true;
    ::eventfd_write(mWake, 1);
    mThread.join();
    for (const auto& [descriptor, peer] : mPeers)
        ::close(descriptor);
    ::close(mListener);
    ::close(mWake);
    ::unlink(mPath.c_str());
}

void StallingProxy::stallThoseThereAre()
{
    mIsStalling = true;
    ::eventfd_write(mWake, 1);
}

void StallingProxy::cut(bool isCut)
{
    mIsCut = isCut;
    ::eventfd_write(mWake, 1);
}

void StallingProxy::holdFirst(bool isHeld)
{
    mIsFirstHeld = isHeld;
    ::eventfd_write(mWake, 1);
}

void StallingProxy::run()
{
    std::map<int, bool> stalled;
    while (!mIsEnding) {
        if (mIsStalling.exchange(false)) {
            for (const auto& [descriptor, peer] : mPeers)
                stalled[descriptor] = true;
        }
        std::vector<pollfd> sources{{mWake, POLLIN, 0}};
        if (!mIsCut) {
            sources.push_back({mListener, POLLIN, 0});
            for (const auto& [descriptor, peer] : mPeers) {
                if (!stalled[descriptor] && !(mIsFirstHeld && descriptor == mFirstServer))
                    sources.push_back({descriptor, POLLIN, 0});
            }
        }
        ::poll(sources.data(), sources.size(), -1);
        for (const pollfd& source : sources) {
            if (source.revents == 0)
                continue;
            if (source.fd == mWake) {
                eventfd_t count = 0;
                ::eventfd_read(mWake, &count);
            } else if (source.fd == mListener) {
                accept();
            } else if (mPeers.count(source.fd) != 0) {
                char buffer[65536];
                const ssize_t got = ::read(source.fd, buffer, sizeof(buffer));
                ssize_t sent = 0;
                while (got > 0 && sent < got) {
                    const ssize_t moved = ::send(
                        mPeers[source.fd],
                        buffer + sent,
                        static_cast<std::size_t>(got - sent),
                        MSG_NOSIGNAL);
                    if (moved <= 0)
                        break;
                    sent += moved;
                }
                if (got <= 0 || sent < got) {
                    stalled.erase(source.fd);
                    stalled.erase(mPeers[source.fd]);
                    close(source.fd);
                }
            }
        }
    }
}

void StallingProxy::accept()
{
    const int client = ::accept4(mListener, nullptr, nullptr, SOCK_CLOEXEC);
    const int server = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = addressOf(mServer);
    if (::connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(client);
        ::close(server);
        return;
    }
    if (mFirstServer == -1)
        mFirstServer = server;
    mPeers[client] = server;
    mPeers[server] = client;
}

void StallingProxy::close(int descriptor)
{
    const int peer = mPeers[descriptor];
    mPeers.erase(descriptor);
    mPeers.erase(peer);
    ::close(descriptor);
    ::close(peer);
}

} // namespace cluster
