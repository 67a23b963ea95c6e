#include "statusctl/Literals.h"

#include <algorithm>

namespace
{

// No argument can contain this letter.
constexpr char literalMark = '\0';

} // namespace

std::string Literals::withoutMark(std::string text)
{
    if (!text.empty() && text.front() == literalMark)
        text.erase(0, 1);
    return text;
}

std::vector<std::string> Literals::mark(std::vector<std::string> arguments)
{
    const auto end = std::find(arguments.begin(), arguments.end(), "--");
    const auto mark = [](std::string& argument) { argument.insert(argument.begin(), literalMark); };
    std::for_each(arguments.begin(), end,
                  [&](std::string& argument)
                  {
                      if (!argument.empty() && argument.front() == '[')
                          mark(argument);
                  });
    if (end == arguments.end())
        return arguments;
    std::for_each(end + 1, arguments.end(), mark);
    arguments.erase(end);
    return arguments;
}
