// A worker program of its own: a job is a text, its result is the text reversed.
#include <nqPoolWorker.h>

int main(int argc, char* argv[])
{
    return nq::runWorker(
        argc, argv, [](std::string_view job) { return std::string(job.rbegin(), job.rend()); });
}
