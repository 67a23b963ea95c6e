#include "statusctl/Pattern.h"

#include <algorithm>
#include <fnmatch.h>

Pattern::Pattern(const std::vector<std::string>& texts)
{
    for (const std::string& text : texts)
    {
        std::vector<std::string>& kind = text.find_first_of("*?[\\") == std::string::npos ? mExact : mGlobs;
        if (std::find(kind.begin(), kind.end(), text) == kind.end())
            kind.push_back(text);
    }
}

Pattern Pattern::ofNames(const std::vector<std::string>& names)
{
    Pattern pattern;
    pattern.mExact = names;
    return pattern;
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
