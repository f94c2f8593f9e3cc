#pragma once

#include "tests/common/frame.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <random>

namespace common {

/// The choices of a random test, wherever they come from.
class Random {
public:
    virtual ~Random() = default;

    virtual std::uint64_t below(std::uint64_t end) = 0;

    /// Any bytes.
    virtual Bytes bytes(std::size_t count)
    {
        Bytes chosen(count);
        for (char& byte : chosen)
            byte = static_cast<char>(below(256));
        return chosen;
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
};

/// Choices that a seed settles on every machine: nothing here depends on the standard library's
/// distributions.
class SeededRandom : public Random {
public:
    explicit SeededRandom(std::uint64_t seed)
        : mEngine(seed)
    {
    }

    std::uint64_t below(std::uint64_t end) override
    {
        return mEngine() % end;
    }

private:
    std::mt19937_64 mEngine;
};

} // namespace common
