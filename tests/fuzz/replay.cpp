// Runs every input of a pack through a target, without a fuzzer: replay PACK

#include "tests/common/refusedMemory.h"

#include <cstdint>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using Input = std::vector<std::uint8_t>;

int fail(const std::string& path, const char* why)
{
    std::cerr << "replay: " << path << why << std::endl;
    return 1;
}

/// The inputs of a pack, each behind the four bytes of its length. False when the end comes earlier
/// than these say.
bool unpack(const Input& pack, std::vector<Input>& inputs)
{
    std::uint32_t length = 0;
    for (std::size_t at = 0; at < pack.size(); at += length) {
        if (pack.size() - at < sizeof length)
            return false;
        std::memcpy(&length, pack.data() + at, sizeof length);
        at += sizeof length;
        if (pack.size() - at < length)
            return false;
        const auto first = pack.begin() + static_cast<std::ptrdiff_t>(at);
        inputs.emplace_back(first, first + static_cast<std::ptrdiff_t>(length));
    }
    return true;
}

int replay(const std::string& path)
{
    if (!common::RefusedMemory::isPossible())
        return fail(path, " needs memory that can be refused, which this tool does not allow");
    std::ifstream file(path, std::ios::binary);
    const Input pack{std::istreambuf_iterator<char>(file), {}};
    if (!file.is_open() || file.bad())
        return fail(path, " cannot be read");
    std::vector<Input> inputs;
    if (!unpack(pack, inputs))
        return fail(path, " is damaged");
    if (inputs.empty())
        return fail(path, " holds no inputs");
    for (std::size_t number = 0; number < inputs.size(); ++number) {
        // The last words of a target that ends the program are then preceded by the input's number.
        std::cout << "input " << number << std::endl;
        LLVMFuzzerTestOneInput(inputs[number].data(), inputs[number].size());
    }
    std::cout << "replay: " << inputs.size() << " inputs, nothing found" << std::endl;
    return 0;
}

} // namespace

int main(int count, char** arguments)
try {
    if (count != 2)
        return fail("PACK", " is the one argument");
    return replay(arguments[1]);
} catch (const std::exception& error) {
    return fail("PACK", error.what());
}
