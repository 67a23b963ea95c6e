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

std::string errorIn(std::string_view line)
{
    if (line.size() > PolicyLimits::lineBytes)
        return "longer than " + std::to_string(PolicyLimits::lineBytes) + " bytes";
    if (std::any_of(line.begin(), line.end(),
                    [](char letter) { return isControl(letter) && letter != '\t'; }))
        return "a control character";
    return {};
}

} // namespace

bool hasControl(std::string_view text)
{
    return std::any_of(text.begin(), text.end(), isControl);
}

std::vector<PolicyWord> errorsInPolicyText(std::string_view text)
{
    std::vector<PolicyWord> errors;
    std::size_t number = 0;
    for (std::size_t begin = 0, end = 0; begin < text.size(); begin = end + 1)
    {
        ++number;
        end = std::min(text.find('\n', begin), text.size());
        std::string_view line = text.substr(begin, end - begin);
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        if (std::string error = errorIn(line); !error.empty())
            errors.push_back({std::move(error), number});
    }
    return errors;
}
