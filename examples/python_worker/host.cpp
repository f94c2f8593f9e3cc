// Gives each line of standard input to a worker that knows nothing of pools, and prints its answer.
#include <nqPool.h>

#include <iostream>
#include <string>

int main(int argc, char* argv[])
try {
    if (argc != 2) {
        std::cerr << "usage: python-worker-host WORKER < lines\n";
        return 2;
    }
    nq::nqPoolOptions options;
    options.worker = argv[1];
    options.plainWorker = true; // speaks the frame protocol and nothing else
    nq::nqPool pool(options);

    for (std::string line; std::getline(std::cin, line);) {
        if (line.empty())
            continue; // a plain worker takes no empty job
        pool.submit(line);
        const auto outcome = pool.next(); // pumps until it is there
        std::cout << (*outcome ? outcome->text() : outcome->failureText()) << std::endl;
    }
    return 0;
} catch (const nq::nqPoolError& error) {
    std::cerr << error.what() << '\n';
    return 2;
}
