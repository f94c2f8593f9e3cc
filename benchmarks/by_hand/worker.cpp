// A worker as it is commonly written with Boost.Asio: read a header, read a payload, answer.
#include "benchmarks/by_hand/whole.h"
#include "benchmarks/common/fail.h"
#include "benchmarks/common/job.h"

#include <array>
#include <boost/asio.hpp>
#include <cstdint>
#include <exception>
#include <string>
#include <vector>

namespace {

void serve(const std::string& name)
{
    using boost::asio::local::stream_protocol;
    boost::asio::io_context context(1);
    stream_protocol::socket socket(context);
    socket.connect(stream_protocol::endpoint(std::string(1, '\0') + name));
    socket.set_option(boost::asio::socket_base::send_buffer_size(bench::sendBufferBytes));

    std::uint32_t length = 0;
    std::vector<char> job;
    boost::system::error_code error;
    for (;;) {
        boost::asio::read(socket, boost::asio::buffer(&length, sizeof length), error);
        if (error)
            return;
        job.resize(length);
        boost::asio::read(socket, boost::asio::buffer(job), bench::Whole(), error);
        if (error)
            return;
        bench::perform(job.data());
        const std::array<boost::asio::const_buffer, 2> frame{
            boost::asio::buffer(&length, sizeof length), boost::asio::buffer(job)};
        boost::asio::write(socket, frame, bench::Whole(), error);
        if (error)
            return;
    }
}

} // namespace

int main(int argc, char* argv[])
{
    if (argc != 2)
        bench::fail("usage: worker NAME");
    try {
        serve(argv[1]);
    } catch (const std::exception& error) {
        bench::fail(error.what());
    }
    return 0;
}
