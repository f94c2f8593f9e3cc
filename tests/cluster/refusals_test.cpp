#include "tests/cluster/clusterFixture.h"

#include "tests/common/processes.h"

#include <functional>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace cluster {

using nq::nqClusterOptions;
using nq::nqClusterPool;
using nq::nqPoolError;

namespace {

/// What the constructor says when it refuses.
std::string refusalOf(const std::string& url, const nqClusterOptions& options = {})
{
    try {
        const nqClusterPool pool(url, queue, {}, options);
        return "it does not refuse";
    } catch (const nqPoolError& error) {
        return error.what();
    }
}

/// A server of another kind, which says one thing to whoever connects.
class Stranger {
public:
    explicit Stranger(const std::string& path, const std::string& greeting)
        : mServer([path, greeting, this] { return serve(path, greeting); })
    {
        char ready = 0;
        (void)!::read(mReady.ends[0], &ready, 1);
    }

private:
    struct Pipe {
        Pipe()
        {
            if (::pipe(ends) != 0)
                ::abort();
        }
        ~Pipe()
        {
            ::close(ends[0]);
            ::close(ends[1]);
        }
        Pipe(const Pipe&) = delete;
        Pipe& operator=(const Pipe&) = delete;
        int ends[2];
    };

    int serve(const std::string& path, const std::string& greeting) const
    {
        const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        ::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        ::listen(listener, 5);
        (void)!::write(mReady.ends[1], "r", 1);
        for (;;) {
            const int connection = ::accept(listener, nullptr, nullptr);
            (void)!::write(connection, greeting.data(), greeting.size());
        }
    }

    Pipe mReady;
    common::Child mServer;
};

bool says(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

} // namespace

class Refusals : public Cluster {
protected:
    std::string passwordFile(const std::string& password) const
    {
        return mFolder.addFile("password", password + "\n", 0600);
    }
};

TEST_F(Refusals, nameTheServerThatIsNotThere)
{
    EXPECT_EQ(
        refusalOf("redis://127.0.0.1:1"),
        "Redis at 127.0.0.1:1 cannot be reached: Connection refused");
}

TEST_F(Refusals, sayThatAPasswordIsWanted)
{
    startRedis({"--requirepass", "secret"});
    EXPECT_TRUE(says(refusalOf(mRedis->url()), "wants a password; set NQ_REDIS_PASSWORD_FILE"));
}

TEST_F(Refusals, sayThatThePasswordIsWrongAndDoNotShowIt)
{
    startRedis({"--requirepass", "secret"});
    nqClusterOptions options;
    options.passwordFile = passwordFile("guess");
    const std::string refusal = refusalOf(mRedis->url(), options);
    EXPECT_TRUE(says(refusal, "refuses the password: WRONGPASS")) << refusal;
    EXPECT_FALSE(says(refusal, "guess"));
}

TEST_F(Refusals, endOnceThePasswordIsRight)
{
    startRedis({"--requirepass", "secret"});
    nqClusterOptions options;
    options.passwordFile = passwordFile("secret");
    EXPECT_EQ(refusalOf(mRedis->url(), options), "it does not refuse");
}

TEST_F(Refusals, concernAnAgentWithoutThePasswordToo)
{
    startRedis({"--requirepass", "secret"});
    const auto stranger = launchAgent("stranger");
    EXPECT_TRUE(stranger->says("wants a password"));
    const auto agent = launchAgent("agent", {}, NQ_CLUSTER_WORKER, {"NQ_REDIS_PASSWORD=secret"});
    nqClusterOptions options;
    options.passwordFile = passwordFile("secret");
    nqClusterPool pool(mRedis->url(), queue, {}, options);
    pool.submit("echo in");
    EXPECT_EQ(nextOf(pool).text(), "in");
    EXPECT_FALSE(says(agent->printed(), "secret"));
}

TEST_F(Refusals, concernServersThatThrowAwayWhatTheyWereGiven)
{
    startRedis({"--maxmemory-policy", "allkeys-lru"});
    EXPECT_TRUE(says(refusalOf(mRedis->url()), "set maxmemory-policy noeviction"));
}

TEST_F(Refusals, concernServersThatSpeakSomethingElse)
{
    const std::string path = mFolder.file("web.sock");
    const Stranger web(path, "HTTP/1.1 400 Bad Request\r\n\r\n");
    EXPECT_TRUE(says(refusalOf("unix:" + path), "something that is not Redis's protocol"));
}

TEST_F(Refusals, concernServersThatAnswerNonsenseInRedissProtocol)
{
    const std::string path = mFolder.file("odd.sock");
    const Stranger odd(path, "+OK\r\n+OK\r\n");
    EXPECT_TRUE(says(refusalOf("unix:" + path), "does not say which version"));
}

TEST_F(Refusals, concernServersThatAreTooOld)
{
    const std::string path = mFolder.file("old.sock");
    const Stranger old(path, "$24\r\n\r\nredis_version:6.0.16\r\n\r\n");
    EXPECT_TRUE(says(refusalOf("unix:" + path), "is Redis 6.0.16; 7.0 or later is needed"));
}

TEST_F(Refusals, concernServersThatSayNothing)
{
    const std::string path = mFolder.file("mute.sock");
    const Stranger mute(path, "");
    nqClusterOptions options;
    options.connectTimeout = std::chrono::milliseconds(100);
    const std::string refusal = refusalOf("unix:" + path, options);
    EXPECT_TRUE(says(refusal, "does not answer") || says(refusal, "not answered")) << refusal;
}

TEST_F(Refusals, concernPasswordsThatOthersCouldSee)
{
    const std::string refusal = refusalOf("redis://:secret@localhost:1");
    EXPECT_TRUE(says(refusal, "put it into a file")) << refusal;
    EXPECT_FALSE(says(refusal, "secret"));
}

TEST_F(Refusals, pointFromTlsToATunnel)
{
    EXPECT_TRUE(says(refusalOf("rediss://head:6379"), "run a tunnel such as stunnel"));
}

TEST_F(Refusals, concernAddressesAndNamesThatAreNone)
{
    EXPECT_TRUE(says(refusalOf("head:6379"), "begins with neither redis:// nor unix:"));
    EXPECT_TRUE(says(refusalOf("redis://head:port"), "no number"));
    EXPECT_TRUE(says(refusalOf("redis://head:99999"), "no number"));
    EXPECT_TRUE(says(refusalOf("redis://[::1]6379"), "between ] and its port"));
    EXPECT_TRUE(says(refusalOf("redis://"), "has no host"));
    EXPECT_TRUE(says(refusalOf("unix:"), "has no path"));
    EXPECT_THROW(nqClusterPool(mRedis->url(), "a queue"), nqPoolError);
    EXPECT_THROW(nqClusterPool(mRedis->url(), ""), nqPoolError);
}

} // namespace cluster
