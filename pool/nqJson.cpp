#include "pool/nqJson.h"

#include <charconv>
#include <utility>

namespace nq {

namespace {

constexpr unsigned deepest = 8;

/// In UTF-8; half of a pair of surrogates becomes U+FFFD.
void appendCharacter(std::string& out, unsigned code)
{
    if (code >= 0xD800 && code <= 0xDFFF)
        code = 0xFFFD;
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0U | code >> 6U);
        out += static_cast<char>(0x80U | (code & 0x3FU));
    } else {
        out += static_cast<char>(0xE0U | code >> 12U);
        out += static_cast<char>(0x80U | (code >> 6U & 0x3FU));
        out += static_cast<char>(0x80U | (code & 0x3FU));
    }
}

bool isDigit(char character)
{
    return character >= '0' && character <= '9';
}

} // namespace

/// Each operation reads one thing and says whether it was there.
class nqJson::Parser {
public:
    explicit Parser(std::string_view text)
        : mRest(text)
    {
    }

    bool readAll(nqJson& value)
    {
        return read(value, 0) && (skipBlanks(), mRest.empty());
    }

private:
    bool read(nqJson& value, unsigned depth)
    {
        skipBlanks();
        if (mRest.empty() || depth > deepest)
            return false;
        switch (mRest.front()) {
        case '{':
            return readObject(value, depth);
        case '[':
            return readArray(value, depth);
        case '"':
            value.mType = Type::Text;
            return readText(value.mText);
        case 'n':
            return take("null");
        case 't':
            return take("true");
        case 'f':
            return take("false");
        default:
            return readNumber(value);
        }
    }

    bool readObject(nqJson& value, unsigned depth)
    {
        value.mType = Type::Object;
        return readList('{', '}', [&] {
            std::string name;
            skipBlanks();
            return readText(name) && (skipBlanks(), take(":")) &&
                   read(value.mMembers[std::move(name)], depth + 1);
        });
    }

    bool readArray(nqJson& value, unsigned depth)
    {
        value.mType = Type::Array;
        return readList('[', ']', [&] { return read(value.mElements.emplace_back(), depth + 1); });
    }

    template <typename ReadOne>
    bool readList(char first, char last, const ReadOne& readOne)
    {
        if (!take({&first, 1}))
            return false;
        skipBlanks();
        if (take({&last, 1}))
            return true;
        do {
            if (!readOne())
                return false;
            skipBlanks();
        } while (take(","));
        return take({&last, 1});
    }

    bool readText(std::string& text)
    {
        if (!take("\""))
            return false;
        while (!mRest.empty() && mRest.front() != '"') {
            const char character = mRest.front();
            mRest.remove_prefix(1);
            if (character != '\\')
                text += character;
            else if (!readEscape(text))
                return false;
        }
        return take("\"");
    }

    bool readEscape(std::string& text)
    {
        constexpr std::string_view letters = "\"\\/bfnrt";
        constexpr std::string_view meanings = "\"\\/\b\f\n\r\t";
        if (take("u"))
            return readCode(text);
        const std::size_t which = mRest.empty() ? letters.npos : letters.find(mRest.front());
        if (which == letters.npos)
            return false;
        text += meanings[which];
        mRest.remove_prefix(1);
        return true;
    }

    bool readCode(std::string& text)
    {
        unsigned code = 0;
        const char* const begin = mRest.data();
        if (mRest.size() < 4 || std::from_chars(begin, begin + 4, code, 16).ptr != begin + 4)
            return false;
        mRest.remove_prefix(4);
        appendCharacter(text, code);
        return true;
    }

    // By hand: what the standard library offers depends on the locale or on its age.
    bool readNumber(nqJson& value)
    {
        value.mType = Type::Number;
        const bool isNegative = take("-");
        if (mRest.empty() || !isDigit(mRest.front()))
            return false;
        std::uint64_t whole = 0;
        for (; !mRest.empty() && isDigit(mRest.front()); mRest.remove_prefix(1))
            whole = whole * 10 + static_cast<std::uint64_t>(mRest.front() - '0');
        value.mNumber = static_cast<double>(whole);
        if (take(".")) {
            double unit = 1;
            for (; !mRest.empty() && isDigit(mRest.front()); mRest.remove_prefix(1))
                value.mNumber += (unit /= 10) * (mRest.front() - '0');
        }
        value.mCount = isNegative ? 0 : whole;
        if (isNegative)
            value.mNumber = -value.mNumber;
        return true;
    }

    bool take(std::string_view expected)
    {
        if (mRest.substr(0, expected.size()) != expected)
            return false;
        mRest.remove_prefix(expected.size());
        return true;
    }

    void skipBlanks()
    {
        const std::size_t first = mRest.find_first_not_of(" \t\r\n");
        mRest.remove_prefix(first == mRest.npos ? mRest.size() : first);
    }

    std::string_view mRest;
};

std::optional<nqJson> nqJson::parse(std::string_view text)
{
    nqJson value;
    if (!Parser(text).readAll(value))
        return std::nullopt;
    return value;
}

const nqJson& nqJson::operator[](const std::string& name) const
{
    static const nqJson nothing;
    const auto found = mMembers.find(name);
    return found == mMembers.end() ? nothing : found->second;
}

const std::vector<nqJson>& nqJson::elements() const
{
    return mElements;
}

bool nqJson::isObject() const
{
    return mType == Type::Object;
}

bool nqJson::isNumber() const
{
    return mType == Type::Number;
}

std::string nqJson::text() const
{
    return mText;
}

double nqJson::number() const
{
    return mNumber;
}

std::uint64_t nqJson::count() const
{
    return mCount;
}

} // namespace nq
