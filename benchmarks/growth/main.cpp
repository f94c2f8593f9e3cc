#include "benchmarks/growth/growth.h"

#include "benchmarks/common/fail.h"
#include "benchmarks/common/processes.h"

#include <string>

int main(int argc, char* argv[])
{
    if (argc < 2)
        bench::fail("usage: bench-growth pump|pending|payload|rest [--name value]...");
    const std::string what = argv[1];
    const bench::Options options(argc, argv, 2);
    bench::useProcessors(options.text("processors", ""));
    if (what == "pump")
        bench::growPump(options);
    else if (what == "pending")
        bench::growPending(options);
    else if (what == "payload")
        bench::growPayload(options);
    else if (what == "rest")
        bench::rest(options);
    else
        bench::fail("no such measurement");
    return 0;
}
