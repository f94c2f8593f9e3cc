// The least that a worker can do: one receive and one send for each small job, into and out of one
// buffer.
#include "benchmarks/common/fail.h"
#include "benchmarks/common/job.h"
#include "benchmarks/limit/connection.h"

int main(int argc, char* argv[])
{
    if (argc != 2)
        bench::fail("usage: worker NAME");
    const bench::Address host(argv[1]);
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bench::require(::connect(socket, host.get(), host.size) == 0, "connect to the host");
    bench::enlargeSendBuffer(socket);

    bench::IncomingFrame frame;
    for (;;) {
        if (!frame.receive(socket, MSG_WAITALL))
            return 0;
        if (!frame.isComplete())
            continue;
        bench::perform(frame.payload());
        if (!bench::sendAll(socket, frame.bytes(), frame.size()))
            return 0;
        frame.clear();
    }
}
