#include "statusctl/text/Pattern.h"

#include <algorithm>
#include <fnmatch.h>

Pattern::Pattern(const std::vector<std::string>& texts)
{
    for (const std::string& text : texts)
        add(isGlob(text) ? mGlobs : mExact, text);
}

bool Pattern::isGlob(const std::string& text)
{
    return text.find_first_of("*?[\\") != std::string::npos;
}

Pattern Pattern::ofNames(const std::vector<std::string>& names)
{
    Pattern pattern;
    for (const std::string& name : names)
        add(pattern.mExact, name);
    return pattern;
}

void Pattern::add(std::vector<std::string>& texts, const std::string& text)
{
    if (std::find(texts.begin(), texts.end(), text) == texts.end())
        texts.push_back(text);
}

bool Pattern::matches(const std::string& name) const
{
    return isExact(name) || matchesGlob(name);
}

bool Pattern::isExact(const std::string& name) const
{
    return std::find(mExact.begin(), mExact.end(), name) != mExact.end();
}

bool Pattern::matchesGlob(const std::string& name) const
{
    return std::any_of(mGlobs.begin(), mGlobs.end(),
                       [&name](const std::string& glob)
                       { return fnmatch(glob.c_str(), name.c_str(), 0) == 0; });
}
