// contact-sheet-worker: decodes pictures, one job after the other, for contact-sheet.

#include "examples/contact_sheet/decode.h"
#include "examples/contact_sheet/protocol.h"

#include <nqWorker.h>

#include <cstdio>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace {

constexpr int stepMs = 1000; // how often an idle worker looks up; a job or the end wakes it at once

std::variant<sheet::DecodedPicture, sheet::Refusal> decode(const sheet::Job& job)
{
    // Only the file's own faults are caught. A failed allocation is left to end the process: there
    // is no telling what else it broke, and a fresh worker costs the host a few milliseconds.
    try {
        return sheet::decodeToFit(job.path, job.edge);
    } catch (const sheet::DecodeError& error) {
        return sheet::Refusal{error.what()};
    }
}

class PictureWorker : public nq::nqWorker {
public:
    using nqWorker::nqWorker;

protected:
    void processJob(std::vector<char>& bytes, std::vector<char>& result) override
    {
        const std::optional<sheet::Job> job = sheet::decodeJob(bytes);
        if (job)
            result = sheet::encodeAnswer({job->id, decode(*job)});
        else
            result =
                sheet::encodeAnswer({0, sheet::Refusal{"the worker did not understand the job"}});
    }
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("contact-sheet-worker is started by contact-sheet only.\n", stderr);
        return 2;
    }
    PictureWorker worker(argv[1]);
    while (!worker.hasFinished())
        worker.processWorker(stepMs);
    return 0;
}
