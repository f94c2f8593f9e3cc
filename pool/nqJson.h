#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace nq {

/// A value of JSON, for reading back what the pool itself has written, perhaps by a later version
/// or changed by somebody. What is missing or of another type reads as nothing.
class nqJson {
public:
    /// Empty when the text is no JSON, or is nested deeper than any that a pool writes.
    static std::optional<nqJson> parse(std::string_view text);

    /// A member of an object.
    const nqJson& operator[](const std::string& name) const;

    /// Those of an array.
    const std::vector<nqJson>& elements() const;

    bool isObject() const;
    bool isNumber() const;
    std::string text() const;
    double number() const;

    /// Of a number that is not negative, else 0.
    std::uint64_t count() const;

private:
    class Parser;

    enum class Type { Nothing, Text, Number, Array, Object };

    Type mType = Type::Nothing; ///< also of null, true and false, which a pool does not write
    std::string mText;
    double mNumber = 0;
    std::uint64_t mCount = 0; ///< exact, where a double is not
    std::vector<nqJson> mElements;
    std::map<std::string, nqJson> mMembers;
};

} // namespace nq
