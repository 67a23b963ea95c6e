#include "daemon/Glob.h"

#include <cstddef>

namespace
{

// Whether this is a byte of a UTF-8 letter after its first.
bool isContinuation(char letter)
{
    constexpr unsigned mask = 0xc0;
    constexpr unsigned continuation = 0x80;
    return (static_cast<unsigned char>(letter) & mask) == continuation;
}

std::size_t letterEnd(std::string_view text, std::size_t at)
{
    ++at;
    while (at < text.size() && isContinuation(text[at]))
        ++at;
    return at;
}

} // namespace

std::string Glob::errorIn(std::string_view text)
{
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        if (text[i] == '[')
            return "\"[\" is not supported: write ? for any letter, or '\\[' for the bracket itself";
        if (text[i] == '\\' && ++i == text.size())
            return "nothing follows the last \\";
    }
    return {};
}

Glob::Glob(std::string_view text) : mText(text)
{
    std::size_t at = 0;
    for (; at < text.size() && text[at] != '*' && text[at] != '?'; ++at)
    {
        at += text[at] == '\\' ? 1U : 0U;
        mLiteral += text[at];
    }
    std::size_t wildcards = 0;
    bool isAfterStar = false;
    for (; at < text.size(); ++at)
    {
        const bool isStar = text[at] == '*';
        if (isStar && isAfterStar)
            continue; // two in a row mean the same as one
        isAfterStar = isStar;
        if (isStar || text[at] == '?')
        {
            ++wildcards;
            mTail.clear();
        }
        else
        {
            if (text[at] == '\\')
                mRest += text[at++];
            mTail += text[at];
        }
        mRest += text[at];
    }
    mIsTailOnly = wildcards == 1 && mRest[0] == '*';
}

// Only the last * is tried again: the earlier ones never need to take more.
bool Glob::matches(std::string_view rest, std::string_view name)
{
    constexpr std::size_t none = std::string_view::npos;
    std::size_t pattern = 0;
    std::size_t at = 0;
    std::size_t star = none;
    std::size_t starEnd = 0;
    while (at < name.size())
    {
        const char wanted = pattern < rest.size() ? rest[pattern] : '\0';
        if (wanted == '*')
        {
            star = pattern++;
            starEnd = at;
            continue;
        }
        if (wanted == '?')
        {
            at = letterEnd(name, at);
            ++pattern;
            continue;
        }
        const std::size_t literal = pattern + (wanted == '\\' ? 1U : 0U);
        if (literal < rest.size() && rest[literal] == name[at])
        {
            pattern = literal + 1;
            ++at;
        }
        else if (star != none)
        {
            pattern = star + 1;
            at = ++starEnd;
        }
        else
            return false;
    }
    return rest.find_first_not_of('*', pattern) == none;
}
