#include "statusctl/text/LineFormat.h"

#include <cstddef>

std::string LineFormat::unknownField(const std::string& letters) const
{
    for (std::size_t at = mText.find('%'); at != std::string::npos; at = mText.find('%', at + 2))
    {
        std::string field = mText.substr(at, 2);
        if (field != "%%" && (field.size() < 2 || letters.find(field[1]) == std::string::npos))
            return field;
    }
    return "";
}

bool LineFormat::has(char letter) const
{
    bool isThere = false;
    fill(
        [&](char each)
        {
            isThere = isThere || each == letter;
            return std::string();
        });
    return isThere;
}

std::string LineFormat::fill(const std::function<std::string(char)>& textOf) const
{
    std::string line;
    for (std::size_t at = 0; at < mText.size(); ++at)
    {
        if (mText[at] != '%' || at + 1 == mText.size())
            line += mText[at];
        else if (mText[++at] == '%')
            line += '%';
        else
            line += textOf(mText[at]);
    }
    return line;
}
