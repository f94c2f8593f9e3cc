// A worker program of the library for the tests of nqrun: the text in capitals; some items
// misbehave.
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <nqPoolWorker.h>
#include <stdexcept>
#include <string>
#include <thread>

int main(int argc, char* argv[])
{
    return nq::runWorker(argc, argv, [](std::string_view job) {
        if (job == "throw")
            throw std::runtime_error("I do not like it");
        if (job == "report") {
            nq::nqJobFailure failure(nq::nqAttempt::Reason::Exited, "its program left");
            failure.exitStatus = 3;
            throw failure;
        }
        if (job == "crash")
            std::abort();
        if (job == "hang")
            std::this_thread::sleep_for(std::chrono::minutes(1));
        std::string text(job);
        for (char& letter : text)
            letter = static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
        return text;
    });
}
