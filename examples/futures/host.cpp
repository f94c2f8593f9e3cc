// Hands words to a pool on a thread of its own, whose workers are another program.
#include <nqPoolThread.h>

#include <future>
#include <iostream>
#include <vector>

int main(int argc, char* argv[])
try {
    if (argc < 2) {
        std::cerr << "usage: futures-host WORKER [WORD...]\n";
        return 2;
    }
    nq::nqPoolOptions options;
    options.worker = argv[1];
    nq::nqPoolThread pool(options);

    std::vector<std::future<nq::nqOutcome>> outcomes;
    for (int word = 2; word < argc; ++word)
        outcomes.push_back(pool.submit(argv[word]));
    for (std::future<nq::nqOutcome>& future : outcomes) {
        const nq::nqOutcome outcome = future.get();
        std::cout << (outcome ? outcome.text() : outcome.failureText()) << '\n';
    }
    return 0;
} catch (const nq::nqPoolError& error) {
    std::cerr << error.what() << '\n';
    return 2;
}
