#include "broker/policy/PolicyText.h"

#include <algorithm>

#include "broker/policy/PolicyReader.h"

namespace
{

bool isControl(char letter)
{
    const auto byte = static_cast<unsigned char>(letter);
    return byte < ' ' || byte == 0x7f;
}

bool isBeyondAscii(char letter)
{
    constexpr unsigned char ascii = 0x80;
    return static_cast<unsigned char>(letter) >= ascii;
}

// Where quotes begin and end, from line to line.
class Quotes
{
public:
    // False if letters beyond ASCII stand where they must not.
    bool isGood(std::string_view line)
    {
        bool good = true;
        mIsComment = false;
        if (mEnd.size() == 1)
            mEnd = {}; // the library finds that it has no end
        for (std::size_t at = 0; at < line.size(); at += step(line, at))
            good =
                good && (!isBeyondAscii(line[at]) || mIsComment || !mEnd.empty()) && !isBadEscape(line, at);
        return good;
    }

private:
    // Between " and ", and between """ and """. Between ' and ' a backslash is a letter.
    bool isEscape(std::string_view line, std::size_t at) const
    {
        return !mEnd.empty() && mEnd[0] == '"' && line[at] == '\\';
    }

    bool isBadEscape(std::string_view line, std::size_t at) const
    {
        return isEscape(line, at) && at + 1 < line.size() && isBeyondAscii(line[at + 1]);
    }

    // Goes on behind the letter, and returns its length with what belongs to it.
    std::size_t step(std::string_view line, std::size_t at)
    {
        if (mIsComment)
            return 1;
        if (isEscape(line, at))
            return 2;
        return mEnd.empty() ? stepOutside(line, at) : stepInside(line, at);
    }

    std::size_t stepOutside(std::string_view line, std::size_t at)
    {
        mIsComment = line[at] == '#';
        for (const std::string_view quote : {R"(""")", "'''", "\"", "'"})
        {
            if (line.substr(at, quote.size()) == quote)
            {
                mEnd = quote;
                return quote.size();
            }
        }
        return 1;
    }

    // Three quotes may follow one or two that belong to the text.
    std::size_t stepInside(std::string_view line, std::size_t at)
    {
        const std::string_view end = mEnd;
        if (line.substr(at, end.size()) != end)
            return 1;
        if (end.size() > 1 && line.substr(at + 1, end.size()) == end)
            return 1;
        mEnd = {};
        return end.size();
    }

    std::string_view mEnd; // of the quote that is open; empty if none is
    bool mIsComment = false;
};

std::string errorIn(std::string_view line, Quotes& quotes)
{
    const bool hasGoodQuotes = quotes.isGood(line);
    if (line.size() > PolicyLimits::lineBytes)
        return "longer than " + std::to_string(PolicyLimits::lineBytes) + " bytes";
    if (std::any_of(line.begin(), line.end(),
                    [](char letter) { return isControl(letter) && letter != '\t'; }))
        return "a byte that is no text";
    return hasGoodQuotes ? std::string() : "a letter beyond ASCII that is not in quotes";
}

} // namespace

bool hasControl(std::string_view text)
{
    return std::any_of(text.begin(), text.end(), isControl);
}

std::vector<PolicyWord> errorsInPolicyText(std::string_view text)
{
    constexpr std::string_view byteOrderMark = "\xef\xbb\xbf"; // the library skips it
    if (text.substr(0, byteOrderMark.size()) == byteOrderMark)
        text.remove_prefix(byteOrderMark.size());
    std::vector<PolicyWord> errors;
    Quotes quotes;
    std::size_t number = 0;
    for (std::size_t begin = 0, end = 0; begin < text.size(); begin = end + 1)
    {
        ++number;
        end = std::min(text.find('\n', begin), text.size());
        std::string_view line = text.substr(begin, end - begin);
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        if (std::string error = errorIn(line, quotes); !error.empty())
            errors.push_back({std::move(error), number});
    }
    return errors;
}
