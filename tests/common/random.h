#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <random>

namespace common {

/// Choices that a seed settles on every machine: nothing here depends on the standard library's
/// distributions.
class Random {
public:
    explicit Random(std::uint64_t seed)
        : mEngine(seed)
    {
    }

    std::uint64_t below(std::uint64_t end)
    {
        return mEngine() % end;
    }
    std::size_t index(std::size_t size)
    {
        return static_cast<std::size_t>(below(size));
    }
    bool percent(std::uint64_t chance)
    {
        return below(100) < chance;
    }
    template <typename Value>
    Value pick(std::initializer_list<Value> values)
    {
        return *(values.begin() + below(values.size()));
    }

private:
    std::mt19937_64 mEngine;
};

} // namespace common
