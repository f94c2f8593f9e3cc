#include "tests/cluster/clusterFixture.h"

#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace cluster {

namespace {

/// One that nobody has at the moment.
int freePort()
{
    const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    ::bind(probe, reinterpret_cast<const sockaddr*>(&address), size);
    ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size);
    ::close(probe);
    return ntohs(address.sin_port);
}

} // namespace

class Tunnel : public Cluster {
protected:
    void SetUp() override
    {
        if (::access("/usr/bin/stunnel4", X_OK) != 0 || ::access("/usr/bin/openssl", X_OK) != 0)
            GTEST_SKIP() << "stunnel4 or openssl is not installed";
        Cluster::SetUp();
    }

    /// A tunnel's end, once it listens.
    std::unique_ptr<Program> startTunnel(const std::string& name, const std::string& settings) const
    {
        const std::string file = mFolder.addFile(name, "foreground = yes\n" + settings, 0600);
        auto tunnel = std::make_unique<Program>(std::vector<std::string>{"stunnel4", file});
        EXPECT_TRUE(tunnel->says("Configuration successful")) << tunnel->printed();
        return tunnel;
    }
};

TEST_F(Tunnel, carriesJobsAndResultsEncrypted)
{
    const std::string certificate = mFolder.file("head.pem");
    Program openssl(
        {"openssl",
         "req",
         "-x509",
         "-newkey",
         "rsa:2048",
         "-nodes",
         "-days",
         "2",
         "-subj",
         "/CN=head",
         "-addext",
         "subjectAltName=DNS:head",
         "-keyout",
         certificate + ".key",
         "-out",
         certificate});
    ASSERT_EQ(openssl.wait(), 0) << openssl.printed();
    const std::string outside = std::to_string(freePort());
    const std::string inside = std::to_string(freePort());
    const auto head = startTunnel(
        "head.conf",
        "[redis]\naccept = 127.0.0.1:" + outside + "\nconnect = " + mRedis->socket() +
            "\ncert = " + certificate + "\nkey = " + certificate + ".key\n");
    const auto client = startTunnel(
        "client.conf",
        "client = yes\n[redis]\naccept = 127.0.0.1:" + inside + "\nconnect = 127.0.0.1:" + outside +
            "\nCAfile = " + certificate + "\nverifyChain = yes\ncheckHost = head\n");
    const std::string url = "redis://127.0.0.1:" + inside;
    const auto agent = startAgent("agent", {"--redis", url});
    nq::nqClusterPool pool(url, queue);
    const std::string text = "echo " + std::string(1U << 20, 'a');
    pool.submit(text);
    EXPECT_TRUE(nextOf(pool).text() == std::string_view(text).substr(5));
}

} // namespace cluster
