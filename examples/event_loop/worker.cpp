// A job is a number, its result says which two factors it has. Large ones take a while.
#include <nqWorker.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

std::uint64_t smallestFactor(std::uint64_t number)
{
    if (number % 2 == 0)
        return 2;
    for (std::uint64_t factor = 3; factor <= number / factor; factor += 2) {
        if (number % factor == 0)
            return factor;
    }
    return number;
}

std::string factorise(const std::string& text)
{
    const bool isNumber = text.find_first_not_of("0123456789") == std::string::npos;
    if (!isNumber || text.size() > 19) // more digits may not fit into 64 bits
        return text + " is no number of at most 19 digits";
    const std::uint64_t number = std::stoull(text);
    const std::uint64_t factor = number < 2 ? number : smallestFactor(number);
    if (factor == number)
        return text + (number < 2 ? " has no prime factor" : " is prime");
    return text + " = " + std::to_string(factor) + " * " + std::to_string(number / factor);
}

} // namespace

class FactorisingWorker : public nq::nqWorker {
public:
    using nqWorker::nqWorker;

    void processJob(std::vector<char>& job, std::vector<char>& result) override
    {
        const std::string text = factorise({job.begin(), job.end()});
        result.assign(text.begin(), text.end());
    }
};

int main(int argc, char* argv[])
{
    if (argc != 2)
        return 2; // started by hand: a scheduler gives the name of its pipe
    FactorisingWorker worker(argv[1]);
    while (!worker.hasFinished())
        worker.processWorker(1000);
    return 0;
}
